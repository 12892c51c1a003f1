#pragma once

#include "rpc_transport.h"

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>

#include <functional>

class QProcess;
class QTcpSocket;

namespace vantorelle {

// A Bluetooth device the helper found.
struct BleDevice
{
    QString address;
    QString name;
    int rssi = 0; // dBm
};

// Every interval the bridge waits on; tests shrink them.
struct BleBridgeSettings
{
    int startTimeoutMs = 10000;   // helper start until its control connection is up
    int requestTimeoutMs = 15000; // one helper operation (connect, disconnect)
    int scanMs = 4000;            // how long the helper listens for devices
    int quitGraceMs = 2000;       // after "quit", before the helper is killed
};

// One line the helper wrote, taken apart.
struct HelperLine
{
    enum class Kind
    {
        Invalid, // not a JSON object, or neither an answer nor an event
        Answer,  // carries the "id" of a request
        Event    // carries "event"
    };

    Kind kind = Kind::Invalid;
    int id = 0;
    QString event;
    QString address;
    QJsonObject object; // the whole line
};

HelperLine parseHelperLine(const QByteArray& line);

// The Bluetooth route runs through a helper program beside the plug-in, which does the radio
// work and speaks to the plug-in over one local TCP connection. The bridge starts the helper
// when something first needs it and ends it on shutdown().
//
// Start: the helper is run with "--token T" (32 random hex digits), listens on 127.0.0.1, and
// writes {"port":N} as its first line of standard output. The bridge connects and sends
// {"id":1,"op":"hello","token":T} first; the helper drops connections that do not, so no other
// program on this computer can drive it. The helper ends when that connection closes.
//
// Lines are compact JSON objects ending in "\n". Requests carry a rising "id" and "op"; answers
// carry that "id", "ok" and, on failure, "error": {"code","message"}.
//   "hello" {"token"}                  -> {"version"}
//   "scan" {"duration_ms"}             -> {"devices":[{"address","name","rssi"}]}
//   "connect" {"address"[,"passkey"]}  -> {"info":{...}}: what the device says about itself
//   "disconnect" {"address"}           -> {}
//   "send" {"address","data"}          no answer: "data" is one request document as text
//   "quit"                             no answer: the helper exits
// Events carry "event" instead of "id":
//   "message" {"address","data"}       one reply document, as text
//   "envelope" {"address","data":{}}   live data the device pushed
//   "disconnected" {"address","reason"}
class BleHelperBridge : public QObject
{
    Q_OBJECT

public:
    using Done = std::function<void(const RpcResult& result)>;
    using ScanDone = std::function<void(const RpcResult& result, const QList<BleDevice>& devices)>;

    // A line longer than this without its end means the helper is not speaking the protocol.
    static constexpr qsizetype MaxLineBytes = 1024 * 1024;

    // The one bridge of the plug-in.
    static BleHelperBridge& instance();
    // The helper's file name on this system.
    static QString helperFileName();

    explicit BleHelperBridge(const BleBridgeSettings& settings = {}, QObject* parent = nullptr);
    ~BleHelperBridge() override;

    void setHelperPath(const QString& path) { m_helperPath = path; }
    QString helperPath() const { return m_helperPath; }
    // A helper is there to be started: without one, Bluetooth is not offered.
    bool isAvailable() const;
    void setSettings(const BleBridgeSettings& settings) { m_settings = settings; }
    BleBridgeSettings settings() const { return m_settings; }

    // The helper runs and its control connection is up.
    bool isRunning() const { return m_phase == Phase::Running; }
    // The running helper's process id; 0 when there is none.
    qint64 helperProcessId() const;

    // Each completion is called exactly once: with the answer, or with the failure that kept it.
    void scan(ScanDone done);
    // The result holds the device's "info" on success.
    void connectDevice(const QString& address, const QString& passkey, Done done);
    void disconnectDevice(const QString& address);
    // Hands one request document to a connected device; false when that cannot be done now.
    bool send(const QString& address, const QByteArray& json);
    // Ends the helper: asks it to quit, kills it after the grace time, fails what is pending.
    // It starts again when next needed.
    void shutdown();

Q_SIGNALS:
    void message(const QString& address, const QByteArray& json);
    void envelope(const QString& address, const QJsonObject& envelope);
    void deviceLost(const QString& address, const QString& reason);
    void runningChanged(bool running);

private:
    enum class Phase
    {
        Stopped,
        Starting, // the process runs, its port is awaited
        Greeting, // connected, the hello is on its way
        Running
    };

    void request(const QString& op, QJsonObject params, int timeoutMs, Done done);
    void startHelper();
    void readPort();
    void onSocketConnected();
    void readLines();
    void handleLine(const QByteArray& line);
    void answer(const HelperLine& line);
    void handleEvent(const HelperLine& line);
    void expire(int id);
    void writeLine(const QJsonObject& object);
    // The helper is gone (or never came): what is pending fails with `failure`, and connected
    // devices are lost.
    void stopHelper(const RpcResult& failure);

    BleBridgeSettings m_settings;
    QString m_helperPath;
    Phase m_phase = Phase::Stopped;
    QProcess* m_process = nullptr;
    QTcpSocket* m_socket = nullptr;
    QByteArray m_output; // the helper's standard output until its port line
    QByteArray m_buffer; // control connection bytes until a line is whole
    QString m_token;
    QTimer m_startTimer;
    int m_nextId = 1;
    QHash<int, Done> m_pending;
    QList<QByteArray> m_queued; // lines written once the helper is running
    QSet<QString> m_connected;
};

} // namespace vantorelle
