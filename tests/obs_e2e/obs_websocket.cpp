#include "obs_websocket.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QJsonDocument>
#include <QTimer>

namespace vantorelle::test {

ObsWebSocket::ObsWebSocket()
{
    QObject::connect(&m_socket, &QWebSocket::textMessageReceived, &m_socket,
                     [this](const QString& text) {
                         m_inbox.append(QJsonDocument::fromJson(text.toUtf8()).object());
                     });
}

bool ObsWebSocket::open(quint16 port, int timeoutMs)
{
    QEventLoop loop;
    QObject::connect(&m_socket, &QWebSocket::connected, &loop, &QEventLoop::quit);
    QObject::connect(&m_socket, &QWebSocket::disconnected, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    m_socket.open(QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port)));
    loop.exec();
    return m_socket.state() == QAbstractSocket::ConnectedState;
}

bool ObsWebSocket::connectTo(quint16 port, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (open(port, 3000)) {
            // Hello (0), then Identify (1) and the server's Identified (2).
            if (!nextMessage(0, 5000))
                return false;
            const QJsonObject identify{{"op", 1}, {"d", QJsonObject{{"rpcVersion", 1}}}};
            m_socket.sendTextMessage(
                QString::fromUtf8(QJsonDocument(identify).toJson(QJsonDocument::Compact)));
            return nextMessage(2, 5000).has_value();
        }
        m_socket.abort();
        QEventLoop pause;
        QTimer::singleShot(500, &pause, &QEventLoop::quit);
        pause.exec();
    }
    return false;
}

std::optional<QJsonObject> ObsWebSocket::nextMessage(int op, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (true) {
        for (qsizetype i = 0; i < m_inbox.size(); ++i) {
            if (m_inbox.at(i).value("op").toInt() == op)
                return m_inbox.takeAt(i).value("d").toObject();
        }
        if (deadline.hasExpired() || m_socket.state() != QAbstractSocket::ConnectedState)
            return std::nullopt;
        QEventLoop wait;
        QObject::connect(&m_socket, &QWebSocket::textMessageReceived, &wait, &QEventLoop::quit);
        QObject::connect(&m_socket, &QWebSocket::disconnected, &wait, &QEventLoop::quit);
        QTimer::singleShot(int(qMax<qint64>(1, deadline.remainingTime())), &wait,
                           &QEventLoop::quit);
        wait.exec();
    }
}

std::optional<QJsonObject> ObsWebSocket::request(const QString& type, const QJsonObject& data,
                                                 QString* error, int timeoutMs)
{
    const QString id = QString::number(m_nextId++);
    const QJsonObject message{
        {"op", 6},
        {"d", QJsonObject{{"requestType", type}, {"requestId", id}, {"requestData", data}}}};
    m_socket.sendTextMessage(
        QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact)));
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        const std::optional<QJsonObject> answer =
            nextMessage(7, int(qMax<qint64>(1, deadline.remainingTime())));
        if (!answer)
            break;
        if (answer->value("requestId").toString() != id)
            continue;
        const QJsonObject status = answer->value("requestStatus").toObject();
        if (status.value("result").toBool())
            return answer->value("responseData").toObject();
        if (error)
            *error = QStringLiteral("%1 failed (%2): %3")
                         .arg(type)
                         .arg(status.value("code").toInt())
                         .arg(status.value("comment").toString());
        return std::nullopt;
    }
    if (error)
        *error = QStringLiteral("%1: no answer").arg(type);
    return std::nullopt;
}

} // namespace vantorelle::test
