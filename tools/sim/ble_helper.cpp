#include "sim/ble_helper.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

namespace vantorelle::sim {

namespace {

QString text(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

} // namespace

BleHelper::BleHelper(const BleHelperOptions& options, QObject* parent)
    : QObject(parent), m_options(options)
{
    for (int n = 0; n < options.devices; ++n) {
        auto* device = new Device;
        const int number = 42 + n;
        device->address = QStringLiteral("F4:12:FA:00:00:%1").arg(number, 2, 10, QLatin1Char('0'));
        device->name = QStringLiteral("Vantorelle %1").arg(number, 4, 10, QLatin1Char('0'));
        device->responder = std::make_unique<AdminResponder>();
        if (!options.password.isEmpty())
            device->responder->setPassword(options.password);
        device->game = std::make_unique<Game>();
        device->game->setSeed(quint32(number));
        device->game->start(options.gameIntervalMs);
        device->responder->setGame(device->game.get());
        m_devices.append(device);
    }
    connect(&m_server, &QTcpServer::newConnection, this, &BleHelper::accept);
}

BleHelper::~BleHelper()
{
    qDeleteAll(m_devices);
}

bool BleHelper::start()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

void BleHelper::accept()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readLines(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            socket->deleteLater();
            if (socket == m_control)
                Q_EMIT finished();
        });
    }
}

// Only one connection is served: the first that greets with the token.
void BleHelper::readLines(QTcpSocket* socket)
{
    if (m_control && socket != m_control)
        return socket->abort();
    if (!m_control) {
        const QByteArray first = socket->readLine().trimmed();
        const QJsonObject hello = QJsonDocument::fromJson(first).object();
        if (text(hello, "op") != QLatin1String("hello") || text(hello, "token") != m_options.token)
            return socket->abort();
        m_control = socket;
        answer(hello, {{QStringLiteral("version"), QStringLiteral("1.0-sim")}});
    }
    m_buffer += socket->readAll();
    qsizetype end;
    while ((end = m_buffer.indexOf('\n')) >= 0) {
        const QJsonObject request = QJsonDocument::fromJson(m_buffer.left(end)).object();
        m_buffer.remove(0, end + 1);
        handle(request);
    }
}

void BleHelper::handle(const QJsonObject& request)
{
    const QString op = text(request, "op");
    Device* device = find(text(request, "address"));
    if (op == QLatin1String("scan")) {
        QJsonArray found;
        int rssi = -58;
        for (const Device* each : std::as_const(m_devices)) {
            found.append(QJsonObject{{QStringLiteral("address"), each->address},
                                     {QStringLiteral("name"), each->name},
                                     {QStringLiteral("rssi"), rssi}});
            rssi -= 13;
        }
        const int listenMs = request.value(QLatin1String("duration_ms")).toInt();
        QTimer::singleShot(listenMs, this, [this, request, found] {
            answer(request, {{QStringLiteral("devices"), found}});
        });
    } else if (op == QLatin1String("connect")) {
        connectDevice(request);
    } else if (op == QLatin1String("disconnect")) {
        if (device) {
            device->connected = false;
            ++device->generation;
        }
        answer(request, {});
    } else if (op == QLatin1String("send")) {
        if (device && device->connected)
            deliver(device, text(request, "data"));
    } else if (op == QLatin1String("quit")) {
        Q_EMIT finished();
    } else {
        refuse(request, QStringLiteral("unknown_op"), QStringLiteral("Unknown operation"));
    }
}

void BleHelper::connectDevice(const QJsonObject& request)
{
    Device* device = find(text(request, "address"));
    if (!device)
        return refuse(request, QStringLiteral("not_found"),
                      QStringLiteral("No Bluetooth device has that address."));
    if (!m_options.passkey.isEmpty() && text(request, "passkey") != m_options.passkey)
        return refuse(request, QStringLiteral("pairing_failed"),
                      QStringLiteral("The device did not accept the pairing passkey."));
    device->connected = true;
    const quint32 generation = ++device->generation;
    if (m_options.dropAfterMs > 0)
        QTimer::singleShot(m_options.dropAfterMs, this, [this, device, generation] {
            if (device->generation == generation)
                drop(device, QStringLiteral("The device went out of range."));
        });
    answer(request, {{QStringLiteral("info"),
                      QJsonObject{{QStringLiteral("name"), device->name},
                                  {QStringLiteral("model"), QStringLiteral("VT-100")},
                                  {QStringLiteral("transport"), QStringLiteral("ble")}}}});
}

void BleHelper::deliver(Device* device, const QString& data)
{
    const QJsonObject request = QJsonDocument::fromJson(data.toUtf8()).object();
    const QJsonObject reply = device->responder->handle(request);
    const quint32 generation = device->generation;
    QTimer::singleShot(m_options.replyDelayMs, this, [this, device, reply, generation, request] {
        if (device->generation != generation)
            return;
        write({{QStringLiteral("event"), QStringLiteral("message")},
               {QStringLiteral("address"), device->address},
               {QStringLiteral("data"),
                QString::fromUtf8(QJsonDocument(reply).toJson(QJsonDocument::Compact))}});
        // A restarting device leaves the radio link right after its answer.
        if (text(request, "method") == QLatin1String("reboot") &&
            reply.value(QLatin1String("ok")).toBool())
            QTimer::singleShot(20, this, [this, device] {
                drop(device, QStringLiteral("The device is restarting."));
            });
    });
}

void BleHelper::drop(Device* device, const QString& reason)
{
    if (!device->connected)
        return;
    device->connected = false;
    ++device->generation;
    write({{QStringLiteral("event"), QStringLiteral("disconnected")},
           {QStringLiteral("address"), device->address},
           {QStringLiteral("reason"), reason}});
}

BleHelper::Device* BleHelper::find(const QString& address) const
{
    for (Device* device : m_devices) {
        if (device->address == address)
            return device;
    }
    return nullptr;
}

void BleHelper::answer(const QJsonObject& request, const QJsonObject& result)
{
    QJsonObject line = result;
    line.insert(QStringLiteral("id"), request.value(QLatin1String("id")));
    line.insert(QStringLiteral("ok"), true);
    write(line);
}

void BleHelper::refuse(const QJsonObject& request, const QString& code, const QString& message)
{
    write({{QStringLiteral("id"), request.value(QLatin1String("id"))},
           {QStringLiteral("ok"), false},
           {QStringLiteral("error"),
            QJsonObject{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}}}});
}

void BleHelper::write(const QJsonObject& line)
{
    if (m_control)
        m_control->write(QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n');
}

} // namespace vantorelle::sim
