// Feed a portal answer: two bytes pick the HTTP status (0 for no reply), one bit whether the
// network reported an error, the rest is the body. The result succeeds exactly for a transferred
// 2xx, a failure always has a sentence and a code from the body, the device list holds only
// devices with an id, and every overlay page stays on the portal, at the page of its own share
// token, with a size OBS can draw.
#include "fuzz_require.h"
#include "portal_client.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <cstdint>

using vantorelle::fuzz::require;

namespace {

void checkOutputs(const vantorelle::PortalResult& result)
{
    static const vantorelle::PortalClient client(QStringLiteral("https://portal.example.com:8443"));
    const QList<vantorelle::GraphicsOutput> outputs = client.parseOutputs(result);
    require(outputs.size() == result.data.value(u"outputs").toArray().size());
    for (const vantorelle::GraphicsOutput& output : outputs) {
        require(output.width >= 1 && output.width <= 16384);
        require(output.height >= 1 && output.height <= 16384);
        const QUrl url(output.url, QUrl::StrictMode);
        require(url.isValid());
        require(url.scheme() == u"https" && url.host() == u"portal.example.com" &&
                url.port() == 8443);
        require(!url.hasQuery() && !url.hasFragment() && url.userInfo().isEmpty());
        // A token that UTF-8 can carry names exactly its own page.
        if (QString::fromUtf8(output.shareToken.toUtf8()) == output.shareToken)
            require(url.path(QUrl::FullyDecoded) ==
                    QStringLiteral("/graphics/o/") + output.shareToken);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vantorelle;
    if (size < 3)
        return 0;
    const int status = ((data[0] << 8) | data[1]) % 1000;
    const bool transferred = (data[2] & 1) != 0;
    const QByteArray body(reinterpret_cast<const char*>(data + 3), qsizetype(size - 3));

    const PortalResult result = portalResult(status, transferred, body);
    require(result.status == status);
    require(result.ok == (transferred && status >= 200 && status <= 299));
    const QJsonDocument document = QJsonDocument::fromJson(body);
    require(result.data == (document.isObject() ? document.object() : QJsonObject()));
    if (result.ok) {
        require(result.error.isEmpty() && result.message.isEmpty());
    } else {
        require(!result.message.isEmpty());
        // The code is the portal's own, never made up here.
        if (!result.error.isEmpty())
            require(result.error == result.data.value(u"error").toString() ||
                    result.error ==
                        result.data.value(u"detail").toObject().value(u"error").toString());
    }

    const QList<PortalDevice> devices = PortalClient::parseDevices(result);
    require(devices.size() <= result.data.value(u"devices").toArray().size());
    for (const PortalDevice& device : devices)
        require(!device.deviceId.isEmpty());

    checkOutputs(result);
    return 0;
}
