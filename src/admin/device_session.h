#pragma once

#include "controller_catalogue.h"
#include "device_link.h"
#include "rpc_client.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <optional>

namespace vantorelle {

class UsbLink;

// Every interval the session waits on; tests shrink them.
struct DeviceSessionSettings
{
    int pollIntervalMs = 1000;          // live-state poll over a remote link
    int pollTimeoutMs = 6000;           // one getState
    int requestTimeoutMs = 20000;       // every named operation without its own value
    int receiverLoginTimeoutMs = 30000; // sign-in through a wireless receiver
    int rebootTimeoutMs = 8000;         // the device may drop the link before answering
    int verifyDelayMs = 3000;           // the device's time to try a new Wi-Fi network
    int busyRetryDelayMs = 250;         // handed to the RPC client
};

// One network seen by the device's Wi-Fi scan.
struct WifiNetwork
{
    QString ssid;
    QJsonValue auth; // as the device names the authentication
    int rssi = 0;    // dBm
};

// The device's ESP-NOW link to a wireless receiver.
struct WirelessLink
{
    QString role; // "tx": scores go to a receiver (Wi-Fi is off); "off": no link
    QString configured_role;
    QString peer_mac;
    bool key_set = false;
    QString start_error;
};

// The signed-in administrative conversation with one device. The session signs in over the
// link's request channel (trying the stored password before asking the user), keeps a remote
// link alive by polling the live state, signs in again silently when the device forgets it, and
// offers each administrative operation as one call that builds the request and turns the reply
// into a record. The link is not owned: its owner keeps it alive and may delete it at any time.
class DeviceSession : public QObject
{
    Q_OBJECT

public:
    enum class State
    {
        Idle,
        Connecting,
        SigningIn,
        NeedsPassword,
        NeedsNewPassword,
        Ready,
        Lost,
        Error,
        Restarting
    };
    Q_ENUM(State)

    using Done = RpcClient::Callback;
    // Completion with a record; the record is default-constructed when the result failed.
    template <typename T>
    using Reply = std::function<void(const RpcResult& result, const T& value)>;

    explicit DeviceSession(const DeviceSessionSettings& settings = {}, QObject* parent = nullptr);
    ~DeviceSession() override;

    void setSettings(const DeviceSessionSettings& settings);
    DeviceSessionSettings settings() const { return m_settings; }

    // Attaches `link` (detaching any previous one), builds a fresh RPC client over its request
    // channel and opens the link: the outcome arrives as state changes.
    void start(DeviceLink* link);
    // The user gave a password: sign in with it.
    void signIn(const QString& password);
    // The user closes: everything outstanding fails with "Disconnected", the link is closed and
    // the state becomes Idle without a stateChanged.
    void close();

    // The password tried first on opening, and kept after every successful sign-in.
    void setPassword(const QString& password) { m_password = password; }
    QString password() const { return m_password; }
    // The device is reached through a wireless receiver; set after start(), before the link opens.
    void setViaReceiver(bool viaReceiver) { m_viaReceiver = viaReceiver; }

    State state() const { return m_state; }
    QString lastError() const { return m_lastError; }
    QJsonObject deviceInfo() const { return m_deviceInfo; }
    bool mustChangePassword() const { return m_mustChangePassword; }
    bool isReceiverMode() const { return m_receiverMode; }
    bool isRestarting() const { return m_restarting; }
    DeviceLink* link() const { return m_link; }

    // One live-state poll, only when Ready, none outstanding and nothing else waiting.
    void pollOnce();

    void changePassword(const QString& current, const QString& next, Done done);
    // Fetches the status and announces it through statusUpdated.
    void refreshStatus(Done done);
    void wirelessLink(Reply<WirelessLink> done);
    // Hands back the generated key, when one was asked for.
    void enableWirelessTransmitter(const QString& peerMac, bool generateKey, Reply<QString> done);
    void disableEspNowSender(Done done);
    void configureWifi(const QString& ssid, const QString& pass, Done done);
    // After a successful configureWifi: waits for the device to try the network, then reads its
    // status and describes the outcome in one sentence (empty when the status did not come).
    void verifyWifi(const QString& ssid, Reply<QString> done);
    void scanWifi(Reply<QList<WifiNetwork>> done);
    void listControllers(Reply<QList<ControllerChoice>> done);
    void getControllerConfig(Reply<ControllerChoice> done);
    void setController(const ControllerChoice& controller, Done done);
    void reboot(Done done);
    void ensureApiToken(Reply<QString> done);
    // The id under which the device is known to the cloud and to the settings; an answer
    // without one fails.
    void getDeviceId(Reply<QString> done);
    // The device's own settings list, and changes to some of its entries.
    void getSettings(Done done);
    void setSettings(const QJsonObject& changes, Done done);
    // Checks the device's internet connection; it may take up to `timeoutMs`.
    void networkTest(int timeoutMs, Done done);
    // Firmware: whether an update is offered, installing it (the device restarts when it is
    // written) and how far the installation is.
    void otaCheck(Done done);
    void otaApply(Done done);
    void otaProgress(Done done);
    // The radio co-processor's firmware, and updating it (the device restarts afterwards).
    void c6OtaStatus(Done done);
    void c6OtaApply(Done done);
    // The passkey a phone or computer pairs over Bluetooth with.
    void getBlePasskey(Reply<QString> done);
    // The message broker the device reports to, a change of it (a password only when given),
    // and fetching the device's cloud credentials.
    void getMqttConfig(Done done);
    void setMqttConfig(const QJsonObject& broker, Done done);
    void provision(Done done);
    void setDeviceId(const QString& id, Done done);
    // A wireless receiver on the link (isReceiverMode): what it last said about itself, and its
    // own requests. They fail at once on a link that is not a receiver.
    using ReceiverDone = std::function<void(bool ok, const QString& key, const QString& error)>;
    QJsonObject receiverInfo() const;
    void setReceiver(const QString& key, bool generateKey, std::optional<int> channel,
                     ReceiverDone done);
    void receiverStatus(ReceiverDone done);
    void rebootReceiver(ReceiverDone done);
    // Any other method of the catalogue. "reboot", "otaApply" and "c6OtaApply" expect the
    // device to restart.
    void request(const QString& method, const QJsonObject& params, int timeoutMs, Done done);

Q_SIGNALS:
    void stateChanged(vantorelle::DeviceSession::State state, const QString& detail);
    // A live-data envelope: a poll's answer, or what the link delivered by itself.
    void envelope(const QJsonObject& envelope);
    // The device's status (the getStatus result).
    void statusUpdated(const QJsonObject& status);

private:
    void endConversation();
    void detachLink();
    void resetClient(const QString& code, const QString& message);
    void call(const QString& method, const QJsonObject& params, int timeoutMs, Done done);
    void send(const QString& method, const QJsonObject& params, int timeoutMs, Done done);
    void setState(State state, const QString& detail = {});

    void onOpened(const QJsonObject& info);
    void onFailed(const QString& code, const QString& message);
    void onLinkLost(const QString& detail);

    void tryNextPassword();
    void onSignInReply(quint64 generation, const QString& tried, const RpcResult& result);
    void afterLogin(quint64 generation);
    void enterReady();
    void onPollReply(quint64 generation, const RpcResult& result);
    void renewSignIn();
    void answerScanFailure(const RpcResult& failure, const Reply<QList<WifiNetwork>>& done);
    UsbLink* receiver() const;

    DeviceSessionSettings m_settings;
    QPointer<DeviceLink> m_link;
    QPointer<RpcClient> m_client;
    State m_state = State::Idle;
    QString m_detail;
    QString m_lastError;
    QJsonObject m_deviceInfo;
    QStringList m_candidates;
    bool m_signInOutstanding = false;
    QString m_password;
    bool m_mustChangePassword = false;
    bool m_viaReceiver = false;
    bool m_receiverMode = false;
    bool m_restarting = false;
    QTimer m_pollTimer;
    bool m_pollOutstanding = false;
    qint32 m_pollTimeouts = 0;
    // Bumped whenever the conversation ends, so answers to an earlier one are not acted on.
    quint64 m_generation = 0;
};

} // namespace vantorelle
