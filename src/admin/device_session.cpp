#include "device_session.h"

#include "device_link.h"
#include "usb_link.h"

#include <QJsonArray>

#include <utility>

namespace vantorelle {

namespace {

constexpr int MaxPollTimeouts = 3;

const QString& lostSentence()
{
    static const QString text = QStringLiteral("The connection to the device was lost");
    return text;
}

QString receiverTimeoutSentence()
{
    return QStringLiteral("The paired device did not answer through the receiver. Check that the "
                          "device is powered, in range of the receiver and linked to it, then try "
                          "again.");
}

QString wifiOffSentence()
{
    return QStringLiteral("This device is set to send its scores to a wireless receiver, so its "
                          "Wi-Fi is switched off and it cannot see networks. Turn the wireless "
                          "link off to use Wi-Fi.");
}

bool isRejectedPassword(const QString& code)
{
    return code == QLatin1String("unauthorized") || code == QLatin1String("invalid_credentials") ||
           code == QLatin1String("forbidden") || code == QLatin1String("bad_password");
}

// Methods after which the device restarts and drops the link.
bool restartsDevice(const QString& method)
{
    return method == QLatin1String("reboot") || method == QLatin1String("otaApply") ||
           method == QLatin1String("c6OtaApply");
}

QString text(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

ControllerChoice controllerFrom(const QJsonObject& object)
{
    return {text(object, "manufacturer"), text(object, "model"), text(object, "sport"),
            text(object, "input_type")};
}

WifiNetwork networkFrom(const QJsonObject& object)
{
    WifiNetwork network{text(object, "ssid"), object.value(QLatin1String("auth")), 0};
    const QJsonValue rssi = object.value(QLatin1String("rssi"));
    if (rssi.isDouble())
        network.rssi = rssi.toInt();
    return network;
}

WirelessLink wirelessLinkFrom(const QJsonObject& result)
{
    const QJsonObject espnow = result.value(QLatin1String("espnow")).toObject();
    return {text(espnow, "role"), text(espnow, "configured_role"), text(espnow, "peer_mac"),
            espnow.value(QLatin1String("key_set")).toBool(), text(espnow, "start_error")};
}

// The sentence that describes a Wi-Fi join from the device's status.
QString wifiOutcome(const QString& ssid, const QJsonObject& status)
{
    const QJsonObject provision = status.value(QLatin1String("wifi_provision")).toObject();
    const QString state = text(provision, "state");
    if (state == QLatin1String("ok")) {
        const QString address = text(status, "wifi_sta_ip");
        const QString where = address.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(address);
        return QStringLiteral("Joined %1%2.").arg(ssid, where);
    }
    if (state == QLatin1String("reverted")) {
        const QString detail = text(provision, "detail");
        const QString why = detail.isEmpty() ? QString() : QStringLiteral(": ") + detail;
        return QStringLiteral("The device could not join %1%2. Check the password and try again.")
            .arg(ssid, why);
    }
    return QStringLiteral("The device is still working on joining %1. Check back in a minute.")
        .arg(ssid);
}

// Wraps a record-returning completion: the record is built only from a successful result.
template <typename T, typename Build>
DeviceSession::Done withRecord(DeviceSession::Reply<T> done, Build build)
{
    return [done = std::move(done), build](const RpcResult& result) {
        if (done)
            done(result, result.ok ? build(result.result) : T{});
    };
}

template <typename T>
QList<T> listFrom(const QJsonObject& result, const char* key, T (*build)(const QJsonObject&))
{
    QList<T> list;
    for (const QJsonValue& entry : result.value(QLatin1String(key)).toArray())
        list.append(build(entry.toObject()));
    return list;
}

} // namespace

DeviceSession::DeviceSession(const DeviceSessionSettings& settings, QObject* parent)
    : QObject(parent)
{
    connect(&m_pollTimer, &QTimer::timeout, this, &DeviceSession::pollOnce);
    setSettings(settings);
}

// The client goes first, with its queued callbacks uncalled: nobody is left to hear them.
DeviceSession::~DeviceSession()
{
    delete m_client;
}

void DeviceSession::setSettings(const DeviceSessionSettings& settings)
{
    m_settings = settings;
    m_pollTimer.setInterval(settings.pollIntervalMs);
    if (m_client)
        m_client->setBusyRetryDelay(settings.busyRetryDelayMs);
}

// ---- lifecycle ----

void DeviceSession::start(DeviceLink* link)
{
    endConversation();
    detachLink();
    resetClient(QStringLiteral("disconnected"), QStringLiteral("Disconnected"));
    m_mustChangePassword = false;
    m_receiverMode = false;
    m_viaReceiver = false;
    m_restarting = false;
    m_lastError.clear();
    m_candidates.clear();
    m_deviceInfo = {};
    m_link = link;
    if (link) {
        m_client = new RpcClient(link->adminTransport(), this);
        m_client->setBusyRetryDelay(m_settings.busyRetryDelayMs);
        connect(link, &DeviceLink::opened, this, &DeviceSession::onOpened);
        connect(link, &DeviceLink::closed, this, &DeviceSession::onLinkLost);
        connect(link, &DeviceLink::failed, this, &DeviceSession::onFailed);
        connect(link, &DeviceLink::envelope, this, &DeviceSession::envelope);
        // A link deleted under the session counts as lost; what was asked of it fails now
        // rather than at its deadline.
        connect(link, &QObject::destroyed, this, [this] { onLinkLost(lostSentence()); });
    }
    setState(State::Connecting);
    if (link)
        link->open();
}

// Answers still to come belong to a conversation that is over: nothing acts on them.
void DeviceSession::endConversation()
{
    ++m_generation;
    m_signInOutstanding = false;
    m_pollTimer.stop();
    m_pollOutstanding = false;
    m_pollTimeouts = 0;
}

void DeviceSession::detachLink()
{
    if (m_link)
        disconnect(m_link, nullptr, this, nullptr);
    m_link = nullptr;
}

// The old client may be the one whose callback is running: it is deleted later, and requests
// made while it is being cancelled find no client.
void DeviceSession::resetClient(const QString& code, const QString& message)
{
    if (RpcClient* old = std::exchange(m_client, nullptr)) {
        old->cancelAll(code, message);
        old->deleteLater();
    }
}

void DeviceSession::signIn(const QString& password)
{
    m_candidates = {password};
    setState(State::SigningIn);
    tryNextPassword();
}

void DeviceSession::close()
{
    endConversation();
    if (m_client)
        m_client->cancelAll(QStringLiteral("disconnected"), QStringLiteral("Disconnected"));
    if (m_link)
        m_link->close();
    m_password.clear();
    m_candidates.clear();
    m_state = State::Idle;
    m_detail.clear();
}

void DeviceSession::setState(State state, const QString& detail)
{
    if (state != State::Ready)
        m_pollTimer.stop();
    if (state == m_state && detail == m_detail)
        return;
    m_state = state;
    m_detail = detail;
    Q_EMIT stateChanged(state, detail);
}

void DeviceSession::onOpened(const QJsonObject& info)
{
    if (m_state != State::Connecting)
        return;
    m_deviceInfo = info;
    m_receiverMode = info.value(QLatin1String("receiver")).toBool() && !m_viaReceiver;
    if (m_receiverMode) {
        setState(State::Ready);
        return;
    }
    setState(State::SigningIn);
    if (!m_password.isEmpty())
        m_candidates = {m_password};
    tryNextPassword();
}

void DeviceSession::onFailed(const QString&, const QString& message)
{
    if (m_state != State::Connecting)
        return;
    m_lastError = message;
    setState(State::Error, message);
}

void DeviceSession::onLinkLost(const QString& detail)
{
    endConversation();
    if (m_client)
        m_client->cancelAll(QStringLiteral("disconnected"), lostSentence());
    if (m_restarting)
        setState(State::Restarting);
    else if (m_state != State::Idle)
        setState(State::Lost, detail);
}

// ---- sign-in ----

void DeviceSession::tryNextPassword()
{
    if (m_candidates.isEmpty()) {
        setState(State::NeedsPassword);
        return;
    }
    const QString tried = m_candidates.takeFirst();
    const quint64 generation = m_generation;
    m_signInOutstanding = true;
    send(QStringLiteral("login"), {{QLatin1String("password"), tried}},
         m_viaReceiver ? m_settings.receiverLoginTimeoutMs : m_settings.requestTimeoutMs,
         [this, generation, tried](const RpcResult& result) {
             onSignInReply(generation, tried, result);
         });
}

void DeviceSession::onSignInReply(quint64 generation, const QString& tried, const RpcResult& result)
{
    if (generation != m_generation)
        return;
    m_signInOutstanding = false;
    if (result.ok) {
        m_password = tried;
        m_mustChangePassword =
            result.result.value(QLatin1String("must_change_password")).toBool(false);
        afterLogin(generation);
        return;
    }
    if (isRejectedPassword(result.code)) {
        tryNextPassword();
        return;
    }
    if (result.code == QLatin1String("rate_limited")) {
        m_lastError = result.message;
        m_candidates.clear();
        tryNextPassword();
        return;
    }
    m_lastError = m_viaReceiver && result.code == QLatin1String("timeout")
                      ? receiverTimeoutSentence()
                      : result.message;
    setState(State::Error, m_lastError);
}

void DeviceSession::afterLogin(quint64 generation)
{
    send(QStringLiteral("getStatus"), {}, m_settings.requestTimeoutMs,
         [this, generation](const RpcResult& result) {
             if (generation != m_generation)
                 return;
             if (result.ok)
                 Q_EMIT statusUpdated(result.result);
             if (m_mustChangePassword)
                 setState(State::NeedsNewPassword);
             else
                 enterReady();
         });
}

// A USB link delivers live data by itself; only a remote link is polled.
void DeviceSession::enterReady()
{
    setState(State::Ready);
    if (m_link && m_link->isRemote())
        m_pollTimer.start();
}

// ---- polling ----

void DeviceSession::pollOnce()
{
    if (m_state != State::Ready || m_pollOutstanding || !m_client || !m_client->isIdle())
        return;
    m_pollOutstanding = true;
    const quint64 generation = m_generation;
    send(QStringLiteral("getState"), {}, m_settings.pollTimeoutMs,
         [this, generation](const RpcResult& result) { onPollReply(generation, result); });
}

void DeviceSession::onPollReply(quint64 generation, const RpcResult& result)
{
    if (generation != m_generation)
        return;
    m_pollOutstanding = false;
    if (result.ok) {
        m_pollTimeouts = 0;
        Q_EMIT envelope(result.result);
        return;
    }
    if (result.code == QLatin1String("unauthorized")) {
        renewSignIn();
        return;
    }
    // A device that cannot be reached at all is as gone as one that does not answer.
    const bool missed =
        result.code == QLatin1String("timeout") || result.code == QLatin1String("unreachable");
    if (missed && ++m_pollTimeouts >= MaxPollTimeouts) {
        m_pollTimeouts = 0;
        // Closing emits nothing, so the loss is handled here.
        if (m_link)
            m_link->close();
        onLinkLost(lostSentence());
    }
}

// The device forgot the sign-in (an expired session or a stale security token): sign in again
// with the stored password, without the user seeing it.
void DeviceSession::renewSignIn()
{
    if (m_state != State::Ready || m_password.isEmpty() || m_signInOutstanding)
        return;
    m_candidates = {m_password};
    tryNextPassword();
}

// ---- operations ----

// A user's request: its answer goes to the caller unchanged, but a refusal for want of a
// sign-in renews it first, so that what the caller asks next goes through.
void DeviceSession::call(const QString& method, const QJsonObject& params, int timeoutMs, Done done)
{
    const quint64 generation = m_generation;
    send(method, params, timeoutMs,
         [this, generation, done = std::move(done)](const RpcResult& result) {
             if (generation == m_generation && result.code == QLatin1String("unauthorized"))
                 renewSignIn();
             if (done)
                 done(result);
         });
}

void DeviceSession::send(const QString& method, const QJsonObject& params, int timeoutMs, Done done)
{
    if (m_client) {
        m_client->call(method, params, std::move(done), timeoutMs);
        return;
    }
    if (done)
        done(RpcResult::failure(QStringLiteral("disconnected"),
                                QStringLiteral("Not connected to a device")));
}

void DeviceSession::request(const QString& method, const QJsonObject& params, int timeoutMs,
                            Done done)
{
    if (!restartsDevice(method)) {
        call(method, params, timeoutMs, std::move(done));
        return;
    }
    // Success, a time-out or a dropped link mean the device is restarting; any other refusal
    // means it is not.
    m_restarting = true;
    const quint64 generation = m_generation;
    call(method, params, timeoutMs,
         [this, generation, done = std::move(done)](const RpcResult& result) {
             if (generation == m_generation && !result.ok &&
                 result.code != QLatin1String("timeout") &&
                 result.code != QLatin1String("disconnected"))
                 m_restarting = false;
             if (done)
                 done(result);
         });
}

void DeviceSession::changePassword(const QString& current, const QString& next, Done done)
{
    const QJsonObject params{{QLatin1String("current_password"), current},
                             {QLatin1String("new_password"), next},
                             {QLatin1String("confirm_password"), next}};
    const quint64 generation = m_generation;
    call(QStringLiteral("changePassword"), params, m_settings.requestTimeoutMs,
         [this, generation, next, done = std::move(done)](const RpcResult& result) {
             if (result.ok && generation == m_generation) {
                 m_password = next;
                 m_mustChangePassword = false;
                 enterReady();
             }
             if (done)
                 done(result);
         });
}

void DeviceSession::refreshStatus(Done done)
{
    call(QStringLiteral("getStatus"), {}, m_settings.requestTimeoutMs,
         [this, done = std::move(done)](const RpcResult& result) {
             if (result.ok)
                 Q_EMIT statusUpdated(result.result);
             if (done)
                 done(result);
         });
}

void DeviceSession::wirelessLink(Reply<WirelessLink> done)
{
    call(QStringLiteral("getEspNow"), {}, m_settings.requestTimeoutMs,
         withRecord<WirelessLink>(std::move(done), wirelessLinkFrom));
}

void DeviceSession::enableWirelessTransmitter(const QString& peerMac, bool generateKey,
                                              Reply<QString> done)
{
    const QJsonObject params{{QLatin1String("role"), QStringLiteral("tx")},
                             {QLatin1String("peer_mac"), peerMac},
                             {QLatin1String("generate_key"), generateKey}};
    call(QStringLiteral("setEspNow"), params, m_settings.requestTimeoutMs,
         withRecord<QString>(std::move(done),
                             [](const QJsonObject& result) { return text(result, "key"); }));
}

void DeviceSession::disableEspNowSender(Done done)
{
    call(QStringLiteral("setEspNow"), {{QLatin1String("role"), QStringLiteral("off")}},
         m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::configureWifi(const QString& ssid, const QString& pass, Done done)
{
    call(QStringLiteral("configureWifi"),
         {{QLatin1String("ssid"), ssid}, {QLatin1String("pass"), pass}},
         m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::verifyWifi(const QString& ssid, Reply<QString> done)
{
    QTimer::singleShot(m_settings.verifyDelayMs, this, [this, ssid, done = std::move(done)] {
        refreshStatus(withRecord<QString>(
            done, [ssid](const QJsonObject& status) { return wifiOutcome(ssid, status); }));
    });
}

void DeviceSession::scanWifi(Reply<QList<WifiNetwork>> done)
{
    call(QStringLiteral("scanWifi"), {}, m_settings.requestTimeoutMs,
         [this, done = std::move(done)](const RpcResult& result) {
             if (!result.ok) {
                 answerScanFailure(result, done);
                 return;
             }
             if (done)
                 done(result, listFrom(result.result, "networks", networkFrom));
         });
}

// A device that sends its scores to a receiver has its Wi-Fi off: say so rather than pass on
// the scan's own complaint.
void DeviceSession::answerScanFailure(const RpcResult& failure,
                                      const Reply<QList<WifiNetwork>>& done)
{
    wirelessLink([failure, done](const RpcResult& result, const WirelessLink& link) {
        if (!done)
            return;
        if (result.ok && link.role == QLatin1String("tx"))
            done(RpcResult::failure(QStringLiteral("wifi_off"), wifiOffSentence()), {});
        else
            done(failure, {});
    });
}

void DeviceSession::listControllers(Reply<QList<ControllerChoice>> done)
{
    call(QStringLiteral("getControllerList"), {}, m_settings.requestTimeoutMs,
         withRecord<QList<ControllerChoice>>(std::move(done), [](const QJsonObject& result) {
             return listFrom(result, "controllers", controllerFrom);
         }));
}

void DeviceSession::getControllerConfig(Reply<ControllerChoice> done)
{
    call(QStringLiteral("getControllerConfig"), {}, m_settings.requestTimeoutMs,
         withRecord<ControllerChoice>(std::move(done), controllerFrom));
}

void DeviceSession::setController(const ControllerChoice& controller, Done done)
{
    const QJsonObject params{{QLatin1String("manufacturer"), controller.manufacturer},
                             {QLatin1String("model"), controller.model},
                             {QLatin1String("sport"), controller.sport},
                             {QLatin1String("input_type"), controller.input_type}};
    call(QStringLiteral("setControllerConfig"), params, m_settings.requestTimeoutMs,
         std::move(done));
}

void DeviceSession::reboot(Done done)
{
    request(QStringLiteral("reboot"), {}, m_settings.rebootTimeoutMs, std::move(done));
}

void DeviceSession::ensureApiToken(Reply<QString> done)
{
    call(QStringLiteral("ensureApiToken"), {}, m_settings.requestTimeoutMs,
         withRecord<QString>(std::move(done),
                             [](const QJsonObject& result) { return text(result, "token"); }));
}

// An answer without an id is no use to anyone who asked for it.
void DeviceSession::getDeviceId(Reply<QString> done)
{
    call(QStringLiteral("getDeviceId"), {}, m_settings.requestTimeoutMs,
         [done = std::move(done)](const RpcResult& result) {
             const QString id = text(result.result, "device_id");
             if (!done)
                 return;
             if (result.ok && id.isEmpty())
                 done(RpcResult::failure(QStringLiteral("no_device_id"),
                                         QStringLiteral("The device did not tell its id.")),
                      {});
             else
                 done(result, id);
         });
}

void DeviceSession::getSettings(Done done)
{
    call(QStringLiteral("getSettings"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::setSettings(const QJsonObject& changes, Done done)
{
    call(QStringLiteral("setSettings"), changes, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::networkTest(int timeoutMs, Done done)
{
    call(QStringLiteral("networkTest"), {}, timeoutMs, std::move(done));
}

void DeviceSession::otaCheck(Done done)
{
    call(QStringLiteral("otaCheck"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::otaApply(Done done)
{
    request(QStringLiteral("otaApply"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::otaProgress(Done done)
{
    call(QStringLiteral("otaProgress"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::c6OtaStatus(Done done)
{
    call(QStringLiteral("c6OtaStatus"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::c6OtaApply(Done done)
{
    request(QStringLiteral("c6OtaApply"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::getBlePasskey(Reply<QString> done)
{
    call(QStringLiteral("blePasskey"), {}, m_settings.requestTimeoutMs,
         withRecord<QString>(std::move(done),
                             [](const QJsonObject& result) { return text(result, "passkey"); }));
}

void DeviceSession::getMqttConfig(Done done)
{
    call(QStringLiteral("getMqttConfig"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::setMqttConfig(const QJsonObject& broker, Done done)
{
    call(QStringLiteral("setMqttConfig"), broker, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::provision(Done done)
{
    call(QStringLiteral("provision"), {}, m_settings.requestTimeoutMs, std::move(done));
}

void DeviceSession::setDeviceId(const QString& id, Done done)
{
    call(QStringLiteral("setDeviceId"), {{QLatin1String("device_id"), id}},
         m_settings.requestTimeoutMs, std::move(done));
}

UsbLink* DeviceSession::receiver() const
{
    auto* usb = qobject_cast<UsbLink*>(m_link.data());
    return usb && usb->isReceiver() ? usb : nullptr;
}

QJsonObject DeviceSession::receiverInfo() const
{
    const UsbLink* usb = receiver();
    return usb ? usb->deviceInfo() : QJsonObject();
}

namespace {

void refuseNoReceiver(const DeviceSession::ReceiverDone& done)
{
    if (done)
        done(false, {}, QStringLiteral("No wireless receiver is connected."));
}

} // namespace

void DeviceSession::setReceiver(const QString& key, bool generateKey, std::optional<int> channel,
                                ReceiverDone done)
{
    if (UsbLink* usb = receiver())
        return usb->setReceiver(key, generateKey, channel, std::move(done));
    refuseNoReceiver(done);
}

void DeviceSession::receiverStatus(ReceiverDone done)
{
    if (UsbLink* usb = receiver())
        return usb->requestReceiverStatus(std::move(done));
    refuseNoReceiver(done);
}

void DeviceSession::rebootReceiver(ReceiverDone done)
{
    if (UsbLink* usb = receiver())
        return usb->rebootReceiver(std::move(done));
    refuseNoReceiver(done);
}

} // namespace vantorelle
