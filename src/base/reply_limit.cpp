#include "reply_limit.h"

#include <QNetworkReply>

namespace vantorelle {

namespace {

constexpr const char* kTooLarge = "vantorelleReplyTooLarge";

} // namespace

void limitReplySize(QNetworkReply* reply, qint64 maxBytes)
{
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply,
                     [reply, maxBytes](qint64 received, qint64 total) {
                         if (received <= maxBytes && total <= maxBytes)
                             return;
                         reply->setProperty(kTooLarge, true);
                         reply->abort();
                     });
}

bool replyWasTooLarge(const QNetworkReply* reply)
{
    return reply->property(kTooLarge).toBool();
}

} // namespace vantorelle
