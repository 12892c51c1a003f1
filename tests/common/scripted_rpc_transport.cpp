#include "scripted_rpc_transport.h"

#include <QJsonDocument>
#include <QTimer>

namespace vantorelle::test {

namespace {

QJsonObject parse(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

void ScriptedRpcTransport::send(const QByteArray& json)
{
    m_raw.append(json);
    if (m_script.isEmpty())
        return;
    const auto step = m_script.takeFirst();
    step(parse(json));
}

void ScriptedRpcTransport::answer(Reply reply)
{
    m_script.append([this, reply](const QJsonObject& request) { deliver(reply(request)); });
}

void ScriptedRpcTransport::answerOk(const QJsonValue& result)
{
    answer([result](const QJsonObject& request) {
        QJsonObject reply{{"id", request.value("id")}, {"ok", true}};
        if (!result.isUndefined())
            reply.insert("result", result);
        return compact(reply);
    });
}

void ScriptedRpcTransport::answerError(const QJsonValue& error)
{
    answer([error](const QJsonObject& request) {
        return compact({{"id", request.value("id")}, {"ok", false}, {"error", error}});
    });
}

void ScriptedRpcTransport::stayQuiet()
{
    m_script.append([](const QJsonObject&) {});
}

void ScriptedRpcTransport::fail(const QString& code, const QString& text, bool atOnce)
{
    m_script.append([this, code, text, atOnce](const QJsonObject&) {
        if (atOnce)
            Q_EMIT sendFailed(code, text);
        else
            QTimer::singleShot(0, this, [this, code, text] { Q_EMIT sendFailed(code, text); });
    });
}

void ScriptedRpcTransport::deliver(const QByteArray& json)
{
    QTimer::singleShot(0, this, [this, json] { Q_EMIT message(json); });
}

QList<QJsonObject> ScriptedRpcTransport::requests() const
{
    QList<QJsonObject> parsed;
    for (const QByteArray& raw : m_raw)
        parsed.append(parse(raw));
    return parsed;
}

qint64 ScriptedRpcTransport::lastId() const
{
    return m_raw.isEmpty() ? -1 : qint64(parse(m_raw.last()).value("id").toDouble(-1));
}

} // namespace vantorelle::test
