#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTcpSocket>

#include <memory>

// The simulated USB device plays on a pseudo-terminal, which Windows has not: there a case that
// needs it is skipped (the com_port suite runs the serial path against a native simulator).
#ifdef Q_OS_WIN
#define VANTORELLE_NEEDS_PTY()                                                                     \
    QSKIP("The simulated USB device needs a pseudo-terminal, which Windows has not")
#else
#define VANTORELLE_NEEDS_PTY()                                                                     \
    do {                                                                                           \
    } while (false)
#endif

// Wine's Schannel cannot serve TLS (its crypt32 cannot build a chain for the server's
// certificate): under wine a case with a TLS server in the test process is skipped. The client
// side runs there against native servers (tls_support).
#define VANTORELLE_NEEDS_TLS_SERVER()                                                              \
    if (vantorelle::test::runningUnderWine())                                                      \
    QSKIP("wine's Schannel cannot serve TLS: no certificate chain for the server")

namespace vantorelle::test {

// A plain TCP client that reads newline-delimited JSON, as another program on this computer would.
class LineClient
{
public:
    // Connects to `host`:`port`; false when the connection did not come up within `timeoutMs`.
    bool connectTo(const QString& host, quint16 port, int timeoutMs = 5000);
    void send(const QByteArray& bytes);
    // The next whole line (without its "\n"); an empty array when none came within `timeoutMs`.
    QByteArray readLine(int timeoutMs = 5000);
    // The next line parsed as a JSON object (empty object when none came).
    QJsonObject readObject(int timeoutMs = 5000);
    // True once the server has closed the connection (waits up to `timeoutMs`).
    bool waitForClose(int timeoutMs = 5000);
    QTcpSocket& socket() { return *m_socket; }

private:
    std::unique_ptr<QTcpSocket> m_socket = std::make_unique<QTcpSocket>();
    QByteArray m_pending;
};

// Tries a TCP connection and reports whether something accepted it.
bool canConnect(const QString& host, quint16 port, int timeoutMs = 3000);

// A non-loopback address of this machine (IPv4 first), or an empty string when it has none.
QString nonLoopbackAddress();

// A TCP port that nothing listens on right now.
quint16 freePort();

// Peers that a Windows run under wine gets from outside, started natively by scripts/wine-test:
// wine's Schannel cannot serve TLS and Windows has no pseudo-terminal for the simulated USB
// device. Each is empty (port 0) when its variable is not set.
struct ExternalPeers
{
    QString comPort;   // VANTORELLE_TEST_COM_PORT: "COM9", a simulated device behind it
    quint16 feedPort;  // VANTORELLE_TEST_FEED_PORT: a TLS feed on 127.0.0.1
    QString feedToken; // VANTORELLE_TEST_FEED_TOKEN: the token that feed expects
    QString portalUrl; // VANTORELLE_TEST_PORTAL: "https://127.0.0.1:PORT", no trailing slash
};
ExternalPeers externalPeers();

#ifdef Q_OS_WIN
// The file's discretionary access list in SDDL; empty when it cannot be read.
QString accessList(const QString& file);
// Its entries ("(A;;FA;;;SY" and the like), sorted.
QStringList accessEntries(const QString& file);
// "S-1-5-21-...": the user this process runs as.
QString currentUserSid();
#endif

// Under wine rather than on Windows itself (wine's ntdll exports wine_get_version).
bool runningUnderWine();

// The whole file's bytes, or an empty array when it cannot be read.
QByteArray readFile(const QString& path);
void writeFile(const QString& path, const QByteArray& bytes);

} // namespace vantorelle::test
