#pragma once

#include "sim/admin_responder.h"
#include "sim/game.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>

#include <memory>

namespace vantorelle::sim {

// What the simulated helper does differently from a plain one.
struct BleHelperOptions
{
    QString token = {};    // the one the plug-in must greet with
    QString password = {}; // the devices' admin password; empty: the responder's default
    QString passkey = {};  // when set, connecting needs it
    int devices = 1;       // devices within reach
    int dropAfterMs = 0;   // a connected device goes out of range after this; 0: never
    int replyDelayMs = 0;  // before each device reply
    int gameIntervalMs = 1000;
};

// Plays the Bluetooth helper program: serves the bridge's line protocol on 127.0.0.1 and
// stands for devices in radio range, each answering admin requests through its own
// AdminResponder with a game running. A restart request drops the device's connection.
class BleHelper : public QObject
{
    Q_OBJECT

public:
    static constexpr auto FirstAddress = "F4:12:FA:00:00:42";

    explicit BleHelper(const BleHelperOptions& options, QObject* parent = nullptr);
    ~BleHelper() override;

    bool start();
    quint16 port() const { return m_server.serverPort(); }
    // The responder of the n-th device (from 0).
    AdminResponder& responder(int n = 0) { return *m_devices.at(n)->responder; }

Q_SIGNALS:
    // "quit" came, or the plug-in's connection closed: the program should end.
    void finished();

private:
    struct Device
    {
        QString address;
        QString name;
        std::unique_ptr<AdminResponder> responder;
        std::unique_ptr<Game> game;
        bool connected = false;
        quint32 generation = 0; // raised on each connection change, for timers
    };

    void accept();
    void readLines(QTcpSocket* socket);
    void handle(const QJsonObject& request);
    void answer(const QJsonObject& request, const QJsonObject& result);
    void refuse(const QJsonObject& request, const QString& code, const QString& message);
    void connectDevice(const QJsonObject& request);
    void deliver(Device* device, const QString& data);
    void drop(Device* device, const QString& reason);
    Device* find(const QString& address) const;
    void write(const QJsonObject& line);

    BleHelperOptions m_options;
    QTcpServer m_server;
    QPointer<QTcpSocket> m_control; // the greeted connection
    QByteArray m_buffer;
    QList<Device*> m_devices;
};

} // namespace vantorelle::sim
