#pragma once

#include "fuzz_require.h"
#include "portal_client.h"

#include <QByteArrayList>
#include <QDateTime>
#include <QNetworkCookie>

namespace vantorelle::fuzz {

inline QByteArrayList rawForms(const QList<QNetworkCookie>& cookies)
{
    QByteArrayList forms;
    for (const QNetworkCookie& cookie : cookies)
        forms.append(cookie.toRawForm(QNetworkCookie::Full));
    return forms;
}

// True for a cookie whose text is plain printable ASCII, as every real session cookie is.
inline bool plainText(const QByteArray& raw)
{
    for (const char c : raw) {
        if (c < 0x20 || c > 0x7e)
            return false;
    }
    return true;
}

// The session file of `jar` reads back as the cookies it kept (session cookies and unexpired
// ones): every cookie read back is one of them, in order, none of plain text is lost, and saving
// those again gives the same bytes.
inline void requireJarRoundTrip(const PortalClient::Jar& jar)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QByteArrayList kept;
    for (const QNetworkCookie& cookie : jar.cookies()) {
        // An expiry this close to now may pass between the saves: nothing to tell then.
        if (!cookie.isSessionCookie() && qAbs(cookie.expirationDate().secsTo(now)) < 120)
            return;
        if (cookie.isSessionCookie() || cookie.expirationDate() > now)
            kept.append(cookie.toRawForm(QNetworkCookie::Full));
    }

    const QByteArray bytes = jar.fileBytes();
    PortalClient::Jar again;
    again.loadBytes(bytes);
    qsizetype next = 0;
    for (const QByteArray& raw : rawForms(again.cookies())) {
        while (next < kept.size() && kept[next] != raw) {
            require(!plainText(kept[next]));
            ++next;
        }
        require(next < kept.size());
        ++next;
    }
    for (; next < kept.size(); ++next)
        require(!plainText(kept[next]));
    require(again.fileBytes() == bytes);
}

} // namespace vantorelle::fuzz
