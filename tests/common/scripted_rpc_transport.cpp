#include "scripted_rpc_transport.h"

#include <QJsonDocument>
#include <QTimer>

namespace vantorelle::test {

static QJsonObject parse(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

// {"id":<the request's>,"ok":<ok>,"result" or "error":<value>}; an undefined value is left out.
static QByteArray reply(const QJsonObject& request, bool ok, const QJsonValue& value)
{
    QJsonObject object{{"id", request["id"]}, {"ok", ok}};
    if (!value.isUndefined())
        object.insert(ok ? "result" : "error", value);
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void ScriptedRpcTransport::send(const QByteArray& json)
{
    m_raw.append(json);
    if (!m_script.isEmpty())
        m_script.takeFirst()(parse(json));
    else if (answers)
        deliver(answerByMethod(parse(json)));
}

QByteArray ScriptedRpcTransport::answerByMethod(const QJsonObject& request)
{
    const QString method = request["method"].toString();
    QJsonValue answer = answers->value(method);
    if (answer.isArray())
        answer = answer[qMin(m_answered[method]++, answer.toArray().size() - 1)];
    if (answer.isString())
        return reply(request, false, QJsonObject{{"code", "refused"}, {"message", answer}});
    return reply(request, true, answer.toObject());
}

void ScriptedRpcTransport::answer(Reply reply)
{
    m_script.append([this, reply](const QJsonObject& request) { deliver(reply(request)); });
}

void ScriptedRpcTransport::answerOk(const QJsonValue& result)
{
    answer([result](const QJsonObject& request) { return reply(request, true, result); });
}

void ScriptedRpcTransport::answerError(const QJsonValue& error)
{
    answer([error](const QJsonObject& request) { return reply(request, false, error); });
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

QByteArray ScriptedRpcTransport::sent(qsizetype from) const
{
    QJsonArray sent;
    for (const QJsonObject& request : requests().mid(from)) {
        const QJsonObject params = request["params"].toObject();
        sent.append(params.isEmpty() ? request["method"] : QJsonArray{request["method"], params});
    }
    return QJsonDocument(sent).toJson(QJsonDocument::Compact);
}

} // namespace vantorelle::test
