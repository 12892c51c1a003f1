// Feed the sharing server's request lines as a client would send them: every complete line of
// the input gets the server's answer, which must be nothing or one JSON object on one line.
#include "fuzz_require.h"
#include "hosted_server.h"
#include "live_data.h"

#include <QJsonDocument>
#include <QJsonParseError>

#include <cstdint>

using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using vantorelle::HostedServer;
    static vantorelle::LiveData live;
    static const bool seeded = live.apply({{"sport", "hockey"}, {"fields", QJsonObject{{"a", 1}}}});
    require(seeded);

    bool handled = false;
    QString handledOp;
    // Hands the request back as the reply, so "ok" and "op" from the client reach the framing.
    const HostedServer::Handler handler = [&](const QString& op, const QJsonObject& request) {
        handled = true;
        handledOp = op;
        return request;
    };
    const HostedServer::Snapshot snapshot = [] { return live.toJsonLine(); };

    QByteArray buffer(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    qsizetype end;
    while ((end = buffer.indexOf('\n')) >= 0) {
        const QByteArray line = buffer.left(end);
        buffer.remove(0, end + 1);
        handled = false;
        const QByteArray reply = HostedServer::replyTo(line, snapshot, handler);
        if (reply.isEmpty()) {
            require(line.trimmed().isEmpty());
            continue;
        }
        require(reply.endsWith('\n') && reply.count('\n') == 1);
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(reply, &error);
        require(error.error == QJsonParseError::NoError && doc.isObject());
        if (handled)
            require(doc.object().value("op").toString() == handledOp &&
                    doc.object().contains("ok"));
    }
    return 0;
}
