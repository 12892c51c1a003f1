#include "sim/admin_responder.h"

#include "sim/game.h"

#include <QJsonDocument>
#include <QRandomGenerator>

namespace vantorelle::sim {

namespace {

constexpr auto FirmwareVersion = "2.4.1";
constexpr auto LatestFirmware = "2.5.0";
constexpr int MinPasswordLength = 8;
constexpr int OtaStepPercent = 25;

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

QJsonObject status(const char* word)
{
    return {{QStringLiteral("status"), text(word)}};
}

} // namespace

AdminResponder::AdminResponder(QObject* parent) : QObject(parent)
{
    m_settings = {{QStringLiteral("device_name"), QStringLiteral("Vantorelle 0042")},
                  {QStringLiteral("timezone"), QStringLiteral("UTC")},
                  {QStringLiteral("brightness"), 80},
                  {QStringLiteral("auto_update"), true},
                  {QStringLiteral("cloud_enabled"), true}};
    m_controller = controllerCatalogue().first().toObject();
    m_mqtt = {{QStringLiteral("host"), QString()},
              {QStringLiteral("port"), 1883},
              {QStringLiteral("username"), QString()},
              {QStringLiteral("enabled"), false}};
    m_wifiProvision = {{QStringLiteral("state"), QStringLiteral("idle")},
                       {QStringLiteral("detail"), QString()},
                       {QStringLiteral("elapsed_ms"), 0}};
    setEspNowRole(QStringLiteral("off"));
}

void AdminResponder::setResult(const QString& method, const QJsonObject& result)
{
    m_fixedResults.insert(method, result);
}

void AdminResponder::failNext(const QString& method, const QString& code, const QString& message)
{
    m_nextFailures.insert(method, {code, message});
}

void AdminResponder::setEspNowRole(const QString& role)
{
    m_espNow = {{QStringLiteral("role"), role},
                {QStringLiteral("configured_role"), role},
                {QStringLiteral("peer_mac"), m_espNow.value(QStringLiteral("peer_mac")).toString()},
                {QStringLiteral("key_set"), m_espNow.value(QStringLiteral("key_set")).toBool()},
                {QStringLiteral("start_error"), QString()}};
}

QJsonObject AdminResponder::errorReply(const QJsonValue& id, const QString& code,
                                       const QString& message)
{
    return {{QStringLiteral("id"), id},
            {QStringLiteral("ok"), false},
            {QStringLiteral("error"),
             QJsonObject{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}}}};
}

QJsonObject AdminResponder::okReply(const QJsonValue& id, const QJsonObject& result)
{
    return {{QStringLiteral("id"), id},
            {QStringLiteral("ok"), true},
            {QStringLiteral("result"), result}};
}

QByteArray AdminResponder::handle(const QByteArray& requestJson)
{
    const QJsonDocument document = QJsonDocument::fromJson(requestJson);
    const QJsonObject reply = document.isObject()
                                  ? handle(document.object())
                                  : errorReply(QJsonValue::Null, QStringLiteral("bad_request"),
                                               QStringLiteral("The request is not a JSON object"));
    return QJsonDocument(reply).toJson(QJsonDocument::Compact);
}

QJsonObject AdminResponder::handle(const QJsonObject& request)
{
    const QJsonValue id = request.value(QStringLiteral("id"));
    const QString method = request.value(QStringLiteral("method")).toString();
    const QJsonObject params = request.value(QStringLiteral("params")).toObject();
    m_methodsSeen.append(method);

    Answer answer;
    if (m_busyReplies > 0) {
        --m_busyReplies;
        answer = {
            false, {}, QStringLiteral("busy"), QStringLiteral("The device is busy, try again")};
    } else if (method.isEmpty()) {
        answer = {false,
                  {},
                  QStringLiteral("bad_request"),
                  QStringLiteral("The request names no method")};
    } else if (m_requireLogin && !m_signedIn && method != QLatin1String("login")) {
        answer = {false, {}, QStringLiteral("unauthorized"), QStringLiteral("Sign in first")};
    } else if (const auto failure = m_nextFailures.find(method); failure != m_nextFailures.end()) {
        answer = {false, {}, failure->first, failure->second};
        m_nextFailures.erase(failure);
    } else if (const auto fixed = m_fixedResults.constFind(method);
               fixed != m_fixedResults.cend()) {
        answer = {true, *fixed, {}, {}};
    } else {
        answer = dispatch(method, params);
    }

    Q_EMIT requestHandled(method, answer.ok);
    return answer.ok ? okReply(id, answer.result) : errorReply(id, answer.code, answer.message);
}

AdminResponder::Answer AdminResponder::dispatch(const QString& method, const QJsonObject& params)
{
    const Handler handler = handlers().value(method);
    if (!handler)
        return {false,
                {},
                QStringLiteral("method_not_found"),
                QStringLiteral("Unknown method '%1'").arg(method)};
    return (this->*handler)(params);
}

const QHash<QString, AdminResponder::Handler>& AdminResponder::handlers()
{
    static const QHash<QString, Handler> table{
        {QStringLiteral("login"), &AdminResponder::login},
        {QStringLiteral("changePassword"), &AdminResponder::changePassword},
        {QStringLiteral("getStatus"), &AdminResponder::getStatus},
        {QStringLiteral("networkTest"), &AdminResponder::networkTest},
        {QStringLiteral("ensureApiToken"), &AdminResponder::ensureApiToken},
        {QStringLiteral("getSettings"), &AdminResponder::getSettings},
        {QStringLiteral("setSettings"), &AdminResponder::setSettings},
        {QStringLiteral("getControllerList"), &AdminResponder::getControllerList},
        {QStringLiteral("getControllerConfig"), &AdminResponder::getControllerConfig},
        {QStringLiteral("setControllerConfig"), &AdminResponder::setControllerConfig},
        {QStringLiteral("scanWifi"), &AdminResponder::scanWifi},
        {QStringLiteral("configureWifi"), &AdminResponder::configureWifi},
        {QStringLiteral("getState"), &AdminResponder::getState},
        {QStringLiteral("reboot"), &AdminResponder::reboot},
        {QStringLiteral("otaCheck"), &AdminResponder::otaCheck},
        {QStringLiteral("otaApply"), &AdminResponder::otaApply},
        {QStringLiteral("otaProgress"), &AdminResponder::otaProgress},
        {QStringLiteral("c6OtaStatus"), &AdminResponder::c6OtaStatus},
        {QStringLiteral("c6OtaApply"), &AdminResponder::c6OtaApply},
        {QStringLiteral("getMqttConfig"), &AdminResponder::getMqttConfig},
        {QStringLiteral("setMqttConfig"), &AdminResponder::setMqttConfig},
        {QStringLiteral("getDeviceId"), &AdminResponder::getDeviceId},
        {QStringLiteral("setDeviceId"), &AdminResponder::setDeviceId},
        {QStringLiteral("provision"), &AdminResponder::provision},
        {QStringLiteral("blePasskey"), &AdminResponder::blePasskey},
        {QStringLiteral("getEspNow"), &AdminResponder::getEspNow},
        {QStringLiteral("setEspNow"), &AdminResponder::setEspNow},
    };
    return table;
}

AdminResponder::Answer AdminResponder::login(const QJsonObject& params)
{
    if (params.value(QStringLiteral("password")).toString() != m_password) {
        m_signedIn = false;
        return {false, {}, QStringLiteral("bad_password"), QStringLiteral("Wrong password")};
    }
    m_signedIn = true;
    return {true,
            {{QStringLiteral("must_change_password"), m_mustChangePassword},
             {QStringLiteral("csrf_token"), randomHex(16)}},
            {},
            {}};
}

AdminResponder::Answer AdminResponder::changePassword(const QJsonObject& params)
{
    const QString current = params.value(QStringLiteral("current_password")).toString();
    const QString next = params.value(QStringLiteral("new_password")).toString();
    if (current != m_password)
        return {false,
                {},
                QStringLiteral("bad_password"),
                QStringLiteral("The current password is wrong")};
    if (next != params.value(QStringLiteral("confirm_password")).toString())
        return {false,
                {},
                QStringLiteral("bad_request"),
                QStringLiteral("The new passwords do not match")};
    if (next.size() < MinPasswordLength)
        return {false,
                {},
                QStringLiteral("weak_password"),
                QStringLiteral("The new password must have at least %1 characters")
                    .arg(MinPasswordLength)};
    m_password = next;
    m_mustChangePassword = false;
    return {true, status("ok"), {}, {}};
}

AdminResponder::Answer AdminResponder::getStatus(const QJsonObject&)
{
    const bool wifi = !m_wifiIp.isEmpty();
    QJsonObject result{
        {QStringLiteral("name"), m_settings.value(QStringLiteral("device_name"))},
        {QStringLiteral("device_id"), m_deviceId},
        {QStringLiteral("model"), QStringLiteral("VT-100")},
        {QStringLiteral("fw_version"), text(FirmwareVersion)},
        {QStringLiteral("online"), true},
        {QStringLiteral("sport"), m_controller.value(QStringLiteral("sport"))},
        {QStringLiteral("controller"), m_controller},
        {QStringLiteral("wifi_connected"), wifi},
        {QStringLiteral("wifi_ssid"), m_wifiSsid},
        {QStringLiteral("wifi_sta_ip"), m_wifiIp},
        {QStringLiteral("wifi_rssi"), wifi ? -52 : 0},
        {QStringLiteral("wifi_provision"), m_wifiProvision},
        {QStringLiteral("cloud_connected"), wifi && m_provisioned},
        {QStringLiteral("espnow_role"), m_espNow.value(QStringLiteral("role"))},
        {QStringLiteral("must_change_password"), m_mustChangePassword},
        {QStringLiteral("free_heap"), 183424},
    };
    if (m_game)
        result.insert(QStringLiteral("seq"), m_game->seq());
    return {true, result, {}, {}};
}

AdminResponder::Answer AdminResponder::networkTest(const QJsonObject&)
{
    const bool wifi = !m_wifiIp.isEmpty();
    return {true,
            {{QStringLiteral("wifi_connected"), wifi},
             {QStringLiteral("gateway_ok"), wifi},
             {QStringLiteral("dns_ok"), wifi},
             {QStringLiteral("internet_ok"), wifi},
             {QStringLiteral("cloud_ok"), wifi && m_provisioned},
             {QStringLiteral("latency_ms"), wifi ? 23 : 0}},
            {},
            {}};
}

AdminResponder::Answer AdminResponder::ensureApiToken(const QJsonObject&)
{
    if (m_apiToken.isEmpty())
        m_apiToken = randomHex(24);
    return {true, {{QStringLiteral("token"), m_apiToken}}, {}, {}};
}

AdminResponder::Answer AdminResponder::getSettings(const QJsonObject&)
{
    return {true, m_settings, {}, {}};
}

AdminResponder::Answer AdminResponder::setSettings(const QJsonObject& params)
{
    for (auto it = params.begin(); it != params.end(); ++it)
        m_settings.insert(it.key(), it.value());
    QJsonObject result = status("ok");
    result.insert(QStringLiteral("settings"), m_settings);
    return {true, result, {}, {}};
}

AdminResponder::Answer AdminResponder::getControllerList(const QJsonObject&)
{
    return {true, {{QStringLiteral("controllers"), controllerCatalogue()}}, {}, {}};
}

AdminResponder::Answer AdminResponder::getControllerConfig(const QJsonObject&)
{
    return {true, m_controller, {}, {}};
}

AdminResponder::Answer AdminResponder::setControllerConfig(const QJsonObject& params)
{
    QJsonObject chosen;
    for (const char* key : {"manufacturer", "model", "sport", "input_type"})
        chosen.insert(text(key), params.value(text(key)).toString());
    if (!controllerCatalogue().contains(chosen))
        return {false,
                {},
                QStringLiteral("bad_request"),
                QStringLiteral("That scoreboard controller is not supported")};
    m_controller = chosen;
    const QString sport = chosen.value(QStringLiteral("sport")).toString();
    if (m_game && sport != m_game->sportName())
        m_game->setSport(sport == QLatin1String("basketball") ? Game::Sport::Basketball
                                                              : Game::Sport::Hockey);
    return {true, status("ok"), {}, {}};
}

AdminResponder::Answer AdminResponder::scanWifi(const QJsonObject&)
{
    if (m_espNow.value(QStringLiteral("role")).toString() == QLatin1String("tx"))
        return {false,
                {},
                QStringLiteral("wifi_off"),
                QStringLiteral("Wi-Fi is off while the wireless link is sending")};
    return {true, {{QStringLiteral("networks"), wifiNetworks()}}, {}, {}};
}

// Joins networks of the scan list; a secured one needs a password of at least 8 characters.
AdminResponder::Answer AdminResponder::configureWifi(const QJsonObject& params)
{
    const QString ssid = params.value(QStringLiteral("ssid")).toString();
    QString pass = params.value(QStringLiteral("pass")).toString();
    if (pass.isEmpty())
        pass = params.value(QStringLiteral("password")).toString();
    if (ssid.isEmpty())
        return {false, {}, QStringLiteral("bad_request"), QStringLiteral("Give a network name")};

    QJsonObject network;
    for (const QJsonValue& entry : wifiNetworks()) {
        if (entry[QStringLiteral("ssid")].toString() == ssid)
            network = entry.toObject();
    }
    QString detail;
    if (network.isEmpty())
        detail = QStringLiteral("network not found");
    else if (network.value(QStringLiteral("auth")).toString() != QLatin1String("open") &&
             pass.size() < 8)
        detail = QStringLiteral("wrong password");

    const bool joined = detail.isEmpty();
    m_wifiProvision = {
        {QStringLiteral("state"), joined ? QStringLiteral("ok") : QStringLiteral("reverted")},
        {QStringLiteral("detail"), detail},
        {QStringLiteral("elapsed_ms"), 2150}};
    if (joined) {
        m_wifiSsid = ssid;
        m_wifiIp = QStringLiteral("192.168.1.57");
    }
    return {true, status("ok"), {}, {}};
}

AdminResponder::Answer AdminResponder::getState(const QJsonObject&)
{
    if (m_game)
        return {true, m_game->envelope(), {}, {}};
    return {true,
            {{QStringLiteral("type"), QStringLiteral("state")},
             {QStringLiteral("sport"), m_controller.value(QStringLiteral("sport"))},
             {QStringLiteral("fields"), QJsonObject()}},
            {},
            {}};
}

AdminResponder::Answer AdminResponder::reboot(const QJsonObject&)
{
    m_signedIn = false;
    Q_EMIT rebootRequested();
    return {true, status("ok"), {}, {}};
}

AdminResponder::Answer AdminResponder::otaCheck(const QJsonObject&)
{
    return {true,
            {{QStringLiteral("current_version"), text(FirmwareVersion)},
             {QStringLiteral("latest_version"), text(LatestFirmware)},
             {QStringLiteral("update_available"), true},
             {QStringLiteral("notes"), QStringLiteral("Faster reconnects after a Wi-Fi drop.")}},
            {},
            {}};
}

AdminResponder::Answer AdminResponder::otaApply(const QJsonObject&)
{
    m_otaPercent = 0;
    return {true, status("started"), {}, {}};
}

// Each call moves a running update on by a quarter.
AdminResponder::Answer AdminResponder::otaProgress(const QJsonObject&)
{
    QString state = QStringLiteral("idle");
    if (m_otaPercent >= 0) {
        m_otaPercent = std::min(100, m_otaPercent + OtaStepPercent);
        state = m_otaPercent < 100 ? QStringLiteral("downloading") : QStringLiteral("done");
    }
    return {
        true,
        {{QStringLiteral("state"), state}, {QStringLiteral("percent"), std::max(0, m_otaPercent)}},
        {},
        {}};
}

AdminResponder::Answer AdminResponder::c6OtaStatus(const QJsonObject&)
{
    return {true,
            {{QStringLiteral("state"), QStringLiteral("idle")},
             {QStringLiteral("version"), QStringLiteral("1.0.3")},
             {QStringLiteral("available"), QStringLiteral("1.0.4")}},
            {},
            {}};
}

AdminResponder::Answer AdminResponder::c6OtaApply(const QJsonObject&)
{
    return {true, status("started"), {}, {}};
}

AdminResponder::Answer AdminResponder::getMqttConfig(const QJsonObject&)
{
    return {true, m_mqtt, {}, {}};
}

// The password is kept but never shown again.
AdminResponder::Answer AdminResponder::setMqttConfig(const QJsonObject& params)
{
    for (auto it = params.begin(); it != params.end(); ++it) {
        if (it.key() != QLatin1String("password"))
            m_mqtt.insert(it.key(), it.value());
    }
    return {true, status("ok"), {}, {}};
}

AdminResponder::Answer AdminResponder::getDeviceId(const QJsonObject&)
{
    return {true, {{QStringLiteral("device_id"), m_deviceId}}, {}, {}};
}

AdminResponder::Answer AdminResponder::setDeviceId(const QJsonObject& params)
{
    const QString id = params.value(QStringLiteral("device_id")).toString().trimmed();
    if (id.isEmpty())
        return {false, {}, QStringLiteral("bad_request"), QStringLiteral("Give a device id")};
    m_deviceId = id;
    return {true, {{QStringLiteral("device_id"), m_deviceId}}, {}, {}};
}

AdminResponder::Answer AdminResponder::provision(const QJsonObject&)
{
    m_provisioned = true;
    return {
        true,
        {{QStringLiteral("status"), QStringLiteral("ok")}, {QStringLiteral("provisioned"), true}},
        {},
        {}};
}

AdminResponder::Answer AdminResponder::blePasskey(const QJsonObject&)
{
    return {true, {{QStringLiteral("passkey"), QStringLiteral("482913")}}, {}, {}};
}

AdminResponder::Answer AdminResponder::getEspNow(const QJsonObject&)
{
    return {true, {{QStringLiteral("espnow"), m_espNow}}, {}, {}};
}

AdminResponder::Answer AdminResponder::setEspNow(const QJsonObject& params)
{
    const QString role = params.value(QStringLiteral("role")).toString();
    if (role != QLatin1String("tx") && role != QLatin1String("off"))
        return {false,
                {},
                QStringLiteral("bad_request"),
                QStringLiteral("Unknown role '%1'").arg(role)};
    QJsonObject result = status("ok");
    if (role == QLatin1String("tx")) {
        const QString peer = params.value(QStringLiteral("peer_mac")).toString();
        if (peer.isEmpty())
            return {false,
                    {},
                    QStringLiteral("bad_request"),
                    QStringLiteral("Give the receiver's address")};
        m_espNow.insert(QStringLiteral("peer_mac"), peer);
        if (params.value(QStringLiteral("generate_key")).toBool()) {
            const QString key = randomHex(16);
            m_espNow.insert(QStringLiteral("key_set"), true);
            result.insert(QStringLiteral("key"), key);
        }
    }
    setEspNowRole(role);
    return {true, result, {}, {}};
}

// The device's own list, written out rather than taken from the plug-in, so that the plug-in is
// checked against a device and not against itself.
QJsonArray AdminResponder::controllerCatalogue()
{
    const auto entry = [](const char* maker, const char* model, const char* sport,
                          const char* input) {
        return QJsonObject{{QStringLiteral("manufacturer"), text(maker)},
                           {QStringLiteral("model"), text(model)},
                           {QStringLiteral("sport"), text(sport)},
                           {QStringLiteral("input_type"), text(input)}};
    };
    return {entry("Vantorelle", "Wireless Bridge", "hockey", "wireless"),
            entry("Vantorelle", "Wireless Bridge", "basketball", "wireless"),
            entry("Arcline", "AS-500", "hockey", "rs232"),
            entry("Arcline", "AS-500", "basketball", "rs232"),
            entry("Northgate", "MPX", "wrestling", "rs485"),
            entry("Kestrel Boards", "2600", "soccer", "current_loop")};
}

QJsonArray AdminResponder::wifiNetworks()
{
    const auto network = [](const char* ssid, const char* auth, int rssi) {
        return QJsonObject{{QStringLiteral("ssid"), text(ssid)},
                           {QStringLiteral("auth"), text(auth)},
                           {QStringLiteral("rssi"), rssi}};
    };
    return {network("Arena-Staff", "wpa2", -48), network("Arena-Guest", "open", -61),
            network("PressBox", "wpa2", -70), network("Concessions", "wpa3", -82)};
}

QString AdminResponder::randomHex(int bytes)
{
    QByteArray raw(bytes, Qt::Uninitialized);
    for (char& c : raw)
        c = char(QRandomGenerator::global()->bounded(256));
    return QString::fromLatin1(raw.toHex());
}

} // namespace vantorelle::sim
