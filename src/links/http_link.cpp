#include "http_link.h"

#include "http_admin_transport.h"
#include "reply_limit.h"
#include "version.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

namespace vantorelle {

namespace {

struct HostAndPort
{
    QString host;
    int port = 0;
};

// "host:port" with exactly one colon that is not the first character and a port in 1..65535;
// anything else (an IPv6 address among them) is a host without a port.
HostAndPort splitAddress(const QString& address)
{
    const qsizetype colon = address.indexOf(QLatin1Char(':'));
    if (colon <= 0 || address.count(QLatin1Char(':')) != 1)
        return {address, 0};
    bool number = false;
    const int port = address.mid(colon + 1).toInt(&number, 10);
    if (!number || port < 1 || port > 65535)
        return {address, 0};
    return {address.left(colon), port};
}

} // namespace

HttpLink::HttpLink(const QString& address, QObject* parent) : DeviceLink(parent)
{
    const HostAndPort parsed = splitAddress(address);
    m_host = parsed.host;
    m_port = parsed.port;
    m_transport = new HttpAdminTransport(m_host, m_port, this);
}

HttpLink::~HttpLink()
{
    ++m_generation;
}

RpcTransport* HttpLink::adminTransport()
{
    return m_transport;
}

void HttpLink::open()
{
    const quint32 generation = ++m_generation;
    QUrl url;
    url.setScheme(QStringLiteral("http"));
    url.setHost(m_host);
    if (m_port > 0)
        url.setPort(m_port);
    url.setPath(QStringLiteral("/api/status"));

    QNetworkRequest request(url);
    request.setRawHeader("Accept", "application/json");
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    request.setTransferTimeout(m_probeTimeoutMs);
    QNetworkReply* reply = m_network.get(request);
    limitReplySize(reply);
    connect(reply, &QNetworkReply::finished, this, [this, reply, generation] {
        reply->deleteLater();
        if (generation != m_generation)
            return;
        // Any HTTP answer, even an error status, shows that the device is there.
        if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() > 0) {
            m_transport->setConnected(true);
            Q_EMIT opened({});
            return;
        }
        Q_EMIT failed(QStringLiteral("unreachable"),
                      QStringLiteral("Could not reach %1 on your network. Check the address, and "
                                     "that this computer and the device are on the same network.")
                          .arg(m_host));
    });
}

void HttpLink::close()
{
    ++m_generation;
    m_transport->setConnected(false);
    m_transport->clearSession();
}

} // namespace vantorelle
