// Feed a Set-Cookie value as the network hands it over (several headers arrive joined by '\n').
// The device's session keeps one name=value that is safe to send back as a header value and is
// taken from the answer as it is. The portal's jar accepts only cookies for the portal's site,
// and what it saves reads back as the same cookies, saving again to the same bytes.
#include "fuzz_jar.h"
#include "fuzz_require.h"
#include "http_admin_transport.h"
#include "portal_client.h"

#include <QNetworkCookie>
#include <QUrl>

#include <cstdint>

using vantorelle::fuzz::headerSafe;
using vantorelle::fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray setCookie(reinterpret_cast<const char*>(data), qsizetype(size));
    const QByteArray cookie = vantorelle::httpAdminSession(setCookie, {}).cookie;
    require(headerSafe(cookie));
    require(!cookie.contains(';'));
    require(setCookie.contains(cookie));
    // A plain first cookie is kept whole.
    const QByteArray first = setCookie.split('\n').first().split(';').first().trimmed();
    if (headerSafe(first))
        require(cookie == first);

    vantorelle::PortalClient::Jar jar;
    jar.setCookiesFromUrl(QNetworkCookie::parseCookies(setCookie),
                          QUrl(QStringLiteral("https://portal.example.com/auth/login")));
    // Cookies of another site never come from the portal's answer.
    require(jar.cookiesForUrl(QUrl(QStringLiteral("https://elsewhere.example.net/"))).isEmpty());
    vantorelle::fuzz::requireJarRoundTrip(jar);
    return 0;
}
