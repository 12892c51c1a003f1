// Feed the portal session file (session.json: a JSON array of cookie lines) as the client reads
// it back at start. Loading replaces the jar (twice the same file gives the same cookies,
// anything but an array empties it), every cookie comes from a line of the file, and what the
// jar saves reads back as the same cookies, saving again to the same bytes.
#include "fuzz_jar.h"
#include "fuzz_require.h"
#include "portal_client.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkCookie>

#include <cstdint>

using vantorelle::fuzz::rawForms;
using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    vantorelle::PortalClient::Jar jar;
    jar.loadBytes("[\"left=over\"]");
    require(jar.cookies().size() == 1);

    jar.loadBytes(bytes);
    const QList<QNetworkCookie> loaded = jar.cookies();
    const QJsonDocument document = QJsonDocument::fromJson(bytes);
    if (!document.isArray())
        require(loaded.isEmpty());

    qsizetype fromLines = 0;
    for (const QJsonValue& line : document.array()) {
        if (line.isString())
            fromLines += QNetworkCookie::parseCookies(line.toString().toUtf8()).size();
    }
    require(loaded.size() == fromLines);

    jar.loadBytes(bytes);
    require(rawForms(jar.cookies()) == rawForms(loaded));

    vantorelle::fuzz::requireJarRoundTrip(jar);
    return 0;
}
