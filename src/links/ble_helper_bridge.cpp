#include "ble_helper_bridge.h"

#include <QFileInfo>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpSocket>

#include <algorithm>

namespace vantorelle {

namespace {

RpcResult stoppedFailure()
{
    return RpcResult::failure(QStringLiteral("helper_stopped"),
                              QStringLiteral("The Bluetooth helper stopped."));
}

QString text(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

QString randomToken()
{
    QByteArray raw(16, Qt::Uninitialized);
    for (char& c : raw)
        c = char(QRandomGenerator::system()->bounded(256));
    return QString::fromLatin1(raw.toHex());
}

RpcResult startFailure(const QString& why)
{
    return RpcResult::failure(
        QStringLiteral("helper_failed"),
        QStringLiteral("The Bluetooth helper could not start (%1).").arg(why));
}

RpcResult answerResult(const QJsonObject& answer)
{
    if (answer.value(QLatin1String("ok")).toBool())
        return RpcResult::success(answer);
    const QJsonObject error = answer.value(QLatin1String("error")).toObject();
    QString code = text(error, "code");
    QString message = text(error, "message");
    if (code.isEmpty())
        code = QStringLiteral("device_error");
    if (message.isEmpty())
        message = QStringLiteral("The Bluetooth helper refused the request.");
    return RpcResult::failure(code, message);
}

BleDevice deviceFrom(const QJsonObject& object)
{
    return {text(object, "address"), text(object, "name"),
            object.value(QLatin1String("rssi")).toInt()};
}

} // namespace

HelperLine parseHelperLine(const QByteArray& line)
{
    HelperLine parsed;
    const QJsonDocument doc = QJsonDocument::fromJson(line);
    if (!doc.isObject())
        return parsed;
    parsed.object = doc.object();
    parsed.address = text(parsed.object, "address");
    const QJsonValue id = parsed.object.value(QLatin1String("id"));
    parsed.event = text(parsed.object, "event");
    if (id.isDouble() && id.toDouble() == double(id.toInt()) && id.toInt() > 0) {
        parsed.kind = HelperLine::Kind::Answer;
        parsed.id = id.toInt();
    } else if (!parsed.event.isEmpty()) {
        parsed.kind = HelperLine::Kind::Event;
    }
    return parsed;
}

BleHelperBridge& BleHelperBridge::instance()
{
    static BleHelperBridge bridge;
    return bridge;
}

QString BleHelperBridge::helperFileName()
{
#ifdef Q_OS_WIN
    return QStringLiteral("vantorelle-ble-helper.exe");
#else
    return QStringLiteral("vantorelle-ble-helper");
#endif
}

BleHelperBridge::BleHelperBridge(const BleBridgeSettings& settings, QObject* parent)
    : QObject(parent), m_settings(settings)
{
    m_startTimer.setSingleShot(true);
    connect(&m_startTimer, &QTimer::timeout, this,
            [this] { stopHelper(startFailure(QStringLiteral("it did not answer"))); });
}

BleHelperBridge::~BleHelperBridge()
{
    shutdown();
}

bool BleHelperBridge::isAvailable() const
{
    const QFileInfo file(m_helperPath);
    return !m_helperPath.isEmpty() && file.isFile() && file.isExecutable();
}

qint64 BleHelperBridge::helperProcessId() const
{
    return m_process ? m_process->processId() : 0;
}

void BleHelperBridge::scan(ScanDone done)
{
    request(QStringLiteral("scan"), {{QLatin1String("duration_ms"), m_settings.scanMs}},
            m_settings.scanMs + m_settings.requestTimeoutMs,
            [done = std::move(done)](const RpcResult& result) {
                QList<BleDevice> devices;
                for (const QJsonValue& entry :
                     result.result.value(QLatin1String("devices")).toArray())
                    devices.append(deviceFrom(entry.toObject()));
                if (done)
                    done(result, devices);
            });
}

void BleHelperBridge::connectDevice(const QString& address, const QString& passkey, Done done)
{
    QJsonObject params{{QLatin1String("address"), address}};
    if (!passkey.isEmpty())
        params.insert(QLatin1String("passkey"), passkey);
    request(QStringLiteral("connect"), params, m_settings.requestTimeoutMs,
            [this, address, done = std::move(done)](const RpcResult& result) {
                if (result.ok)
                    m_connected.insert(address);
                if (done)
                    done(result);
            });
}

void BleHelperBridge::disconnectDevice(const QString& address)
{
    if (!m_connected.remove(address) || !isRunning())
        return;
    request(QStringLiteral("disconnect"), {{QLatin1String("address"), address}},
            m_settings.requestTimeoutMs, {});
}

bool BleHelperBridge::send(const QString& address, const QByteArray& json)
{
    if (!isRunning() || !m_connected.contains(address))
        return false;
    writeLine({{QLatin1String("op"), QStringLiteral("send")},
               {QLatin1String("address"), address},
               {QLatin1String("data"), QString::fromUtf8(json)}});
    return true;
}

void BleHelperBridge::request(const QString& op, QJsonObject params, int timeoutMs, Done done)
{
    if (!isAvailable()) {
        if (done)
            done(RpcResult::failure(QStringLiteral("helper_missing"),
                                    QStringLiteral("Bluetooth needs the Vantorelle Bluetooth "
                                                   "helper, which is not installed with this "
                                                   "plug-in.")));
        return;
    }
    const int id = m_nextId++;
    params.insert(QLatin1String("id"), id);
    params.insert(QLatin1String("op"), op);
    m_pending.insert(id, std::move(done));
    QTimer::singleShot(timeoutMs, this, [this, id] { expire(id); });
    if (isRunning()) {
        writeLine(params);
        return;
    }
    m_queued.append(QJsonDocument(params).toJson(QJsonDocument::Compact) + '\n');
    if (m_phase == Phase::Stopped)
        startHelper();
}

void BleHelperBridge::startHelper()
{
    m_phase = Phase::Starting;
    m_token = randomToken();
    m_output.clear();
    m_buffer.clear();
    m_process = new QProcess(this);
    m_process->setProgram(m_helperPath);
    m_process->setArguments({QStringLiteral("--token"), m_token});
    m_process->setStandardErrorFile(QProcess::nullDevice());
    connect(m_process, &QProcess::readyReadStandardOutput, this, &BleHelperBridge::readPort);
    connect(m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            stopHelper(startFailure(m_process->errorString()));
    });
    connect(m_process, &QProcess::finished, this, [this] {
        stopHelper(isRunning() ? stoppedFailure() : startFailure(QStringLiteral("it ended")));
    });
    m_startTimer.start(m_settings.startTimeoutMs);
    m_process->start(QIODevice::ReadOnly);
}

void BleHelperBridge::readPort()
{
    // Only the first line matters; whatever the helper prints after it is read and let go.
    const QByteArray output = m_process->readAllStandardOutput();
    if (m_phase != Phase::Starting)
        return;
    m_output += output;
    const qsizetype end = m_output.indexOf('\n');
    if (end < 0 && m_output.size() > MaxLineBytes)
        return stopHelper(startFailure(QStringLiteral("it named no port")));
    if (end < 0)
        return;
    const int port =
        QJsonDocument::fromJson(m_output.left(end)).object().value(QLatin1String("port")).toInt();
    if (port <= 0 || port > 65535)
        return stopHelper(startFailure(QStringLiteral("it named no port")));
    m_phase = Phase::Greeting;
    m_socket = new QTcpSocket(this);
    connect(m_socket, &QTcpSocket::connected, this, &BleHelperBridge::onSocketConnected);
    connect(m_socket, &QTcpSocket::readyRead, this, &BleHelperBridge::readLines);
    connect(m_socket, &QTcpSocket::disconnected, this, [this] {
        stopHelper(isRunning() ? stoppedFailure()
                               : startFailure(QStringLiteral("it closed the connection")));
    });
    connect(m_socket, &QTcpSocket::errorOccurred, this, [this] {
        if (m_phase == Phase::Greeting)
            stopHelper(startFailure(m_socket->errorString()));
    });
    m_socket->connectToHost(QHostAddress::LocalHost, quint16(port));
}

// The hello goes first, ahead of everything queued while the helper started.
void BleHelperBridge::onSocketConnected()
{
    const int id = m_nextId++;
    m_pending.insert(id, [this](const RpcResult& result) {
        if (!result.ok)
            return stopHelper(startFailure(result.message));
        m_startTimer.stop();
        m_phase = Phase::Running;
        for (const QByteArray& line : std::exchange(m_queued, {}))
            m_socket->write(line);
        Q_EMIT runningChanged(true);
    });
    m_socket->write(QJsonDocument(QJsonObject{{QLatin1String("id"), id},
                                              {QLatin1String("op"), QStringLiteral("hello")},
                                              {QLatin1String("token"), m_token}})
                        .toJson(QJsonDocument::Compact) +
                    '\n');
}

void BleHelperBridge::readLines()
{
    m_buffer += m_socket->readAll();
    qsizetype end;
    while (m_socket && (end = m_buffer.indexOf('\n')) >= 0) {
        const QByteArray line = m_buffer.left(end).trimmed();
        m_buffer.remove(0, end + 1);
        if (!line.isEmpty())
            handleLine(line);
    }
    if (m_buffer.size() > MaxLineBytes)
        stopHelper(stoppedFailure());
}

void BleHelperBridge::handleLine(const QByteArray& line)
{
    const HelperLine parsed = parseHelperLine(line);
    if (parsed.kind == HelperLine::Kind::Answer)
        answer(parsed);
    else if (parsed.kind == HelperLine::Kind::Event)
        handleEvent(parsed);
}

void BleHelperBridge::answer(const HelperLine& line)
{
    const Done done = m_pending.take(line.id);
    if (done)
        done(answerResult(line.object));
}

void BleHelperBridge::handleEvent(const HelperLine& line)
{
    const QJsonValue data = line.object.value(QLatin1String("data"));
    if (line.event == QLatin1String("message") && data.isString()) {
        Q_EMIT message(line.address, data.toString().toUtf8());
    } else if (line.event == QLatin1String("envelope") && data.isObject()) {
        Q_EMIT envelope(line.address, data.toObject());
    } else if (line.event == QLatin1String("disconnected") && m_connected.remove(line.address)) {
        QString reason = text(line.object, "reason");
        if (reason.isEmpty())
            reason = QStringLiteral("The Bluetooth device was disconnected.");
        Q_EMIT deviceLost(line.address, reason);
    }
}

void BleHelperBridge::expire(int id)
{
    const Done done = m_pending.take(id);
    if (done)
        done(RpcResult::failure(QStringLiteral("timeout"),
                                QStringLiteral("The Bluetooth helper did not answer in time.")));
}

void BleHelperBridge::writeLine(const QJsonObject& object)
{
    m_socket->write(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

void BleHelperBridge::shutdown()
{
    if (m_phase == Phase::Stopped)
        return;
    if (m_process && m_socket && m_phase == Phase::Running) {
        writeLine({{QLatin1String("op"), QStringLiteral("quit")}});
        m_socket->flush();
        m_process->waitForFinished(m_settings.quitGraceMs);
    }
    stopHelper(stoppedFailure());
}

void BleHelperBridge::stopHelper(const RpcResult& failure)
{
    if (m_phase == Phase::Stopped)
        return;
    const bool wasRunning = m_phase == Phase::Running;
    m_phase = Phase::Stopped;
    m_startTimer.stop();
    m_queued.clear();
    m_buffer.clear();
    if (QTcpSocket* socket = std::exchange(m_socket, nullptr)) {
        socket->disconnect(this);
        socket->abort();
        socket->deleteLater();
    }
    if (QProcess* process = std::exchange(m_process, nullptr)) {
        process->disconnect(this);
        if (process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished(1000);
        }
        process->deleteLater();
    }
    // Requests fail in the order they were made.
    const QHash<int, Done> pending = std::exchange(m_pending, {});
    QList<int> ids = pending.keys();
    std::sort(ids.begin(), ids.end());
    for (int id : std::as_const(ids)) {
        if (const Done& done = pending.value(id))
            done(failure);
    }
    for (const QString& address : std::exchange(m_connected, {}))
        Q_EMIT deviceLost(address, stoppedFailure().message);
    if (wasRunning)
        Q_EMIT runningChanged(false);
}

} // namespace vantorelle
