#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QTcpSocket>

#include <memory>

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

// The whole file's bytes, or an empty array when it cannot be read.
QByteArray readFile(const QString& path);
void writeFile(const QString& path, const QByteArray& bytes);

} // namespace vantorelle::test
