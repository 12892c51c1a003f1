// Feed what the device's HTTP admin API answers: two bytes pick the HTTP status (0 for no
// answer), one byte the method asked, the rest is the body. The answer must be a reply or an
// error with a code and a sentence, success exactly for 2xx (and a dropped restart), a reply that
// survives the trip through its JSON document unchanged, and a login session whose values are
// safe to send back as header values.
#include "fuzz_require.h"
#include "http_admin_transport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <cstdint>

using vantorelle::fuzz::headerSafe;
using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vantorelle;
    if (size < 3)
        return 0;
    // 0 to 999 covers no answer, every class of status and a few that are not one.
    const int status = ((data[0] << 8) | data[1]) % 1000;
    const auto& routes = httpAdminRoutes();
    const size_t pick = data[2] % (routes.size() + 1);
    const QString method = pick < routes.size() ? QString::fromLatin1(routes[pick].method)
                                                : QStringLiteral("notAMethod");
    const QByteArray body(reinterpret_cast<const char*>(data + 3), qsizetype(size - 3));

    const HttpAdminAnswer answer = httpAdminAnswer(method, status, body);
    const bool restart = method == u"reboot" || method == u"otaApply";
    require(answer.ok == ((status >= 200 && status <= 299) || (status == 0 && restart)));

    if (!answer.ok) {
        require(!answer.code.isEmpty() && !answer.message.isEmpty());
        require(answer.result.isEmpty());
        // Only a 400 passes the device's own code on; every other failure has a fixed code.
        static const QStringList fixed{"unreachable",  "unauthorized", "forbidden",
                                       "rate_limited", "unavailable",  "device_error"};
        require(status == 400 || fixed.contains(answer.code));
        // Only a refused session (401) or a stale CSRF token (a 403) makes the session sign in.
        if (answer.code == u"unauthorized" && status != 400)
            require(status == 401 || status == 403);
        return 0;
    }
    require(answer.code.isEmpty() && answer.message.isEmpty());

    if (status != 0) {
        const QJsonDocument document = QJsonDocument::fromJson(body);
        if (document.isObject()) {
            require(answer.result == document.object());
        } else {
            require(answer.result.size() == 1 && answer.result.contains(u"value"));
            require(document.isArray() ? answer.result.value(u"value").toArray() == document.array()
                                       : answer.result.value(u"value").isNull());
        }
    }

    // The reply document goes out as one compact line and must read back as the same result.
    const QByteArray reply =
        QJsonDocument(QJsonObject{{"id", 1}, {"ok", true}, {"result", answer.result}})
            .toJson(QJsonDocument::Compact);
    require(!reply.contains('\n'));
    require(QJsonDocument::fromJson(reply).object().value(u"result").toObject() == answer.result);

    if (method == u"login") {
        const HttpAdminSession session = httpAdminSession({}, answer.result);
        require(session.cookie.isEmpty());
        require(headerSafe(session.csrfToken));
        const QString token = answer.result.value(u"csrf_token").toString();
        if (headerSafe(token.toUtf8()))
            require(session.csrfToken == token.toUtf8());
    }
    return 0;
}
