#pragma once

#include <QJsonObject>
#include <QString>
#include <QWebSocket>

namespace vantorelle::test {

// A client of OBS's websocket server (protocol version 1, no password): identifies itself and
// sends requests one at a time, waiting for each answer.
class ObsWebSocket
{
public:
    ObsWebSocket();
    // Connects and identifies; retries until OBS listens or `timeoutMs` has passed.
    bool connectTo(quint16 port, int timeoutMs);
    // Sends one request; the response's `responseData`, or nothing when it failed (the reason
    // goes to `error`).
    std::optional<QJsonObject> request(const QString& type, const QJsonObject& data = {},
                                       QString* error = nullptr, int timeoutMs = 15000);

private:
    bool open(quint16 port, int timeoutMs);
    std::optional<QJsonObject> nextMessage(int op, int timeoutMs);

    QWebSocket m_socket;
    QList<QJsonObject> m_inbox;
    int m_nextId = 1;
};

} // namespace vantorelle::test
