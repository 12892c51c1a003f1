#pragma once

#include "sim/game.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>

namespace vantorelle::sim {

// The device's side of the admin request protocol: takes a request document
// {"id","method","params"} and returns the reply {"id","ok","result"} or {"id","ok":false,
// "error":{"code","message"}}. Answers every method of the catalogue with plausible results and
// keeps the settings it is given. Knows nothing of the transport that carries the documents.
class AdminResponder : public QObject
{
    Q_OBJECT

public:
    static constexpr auto DefaultPassword = "admin";

    explicit AdminResponder(QObject* parent = nullptr);

    void setPassword(const QString& password) { m_password = password; }
    QString password() const { return m_password; }
    void setMustChangePassword(bool must) { m_mustChangePassword = must; }
    // When set, every method but "login" is refused with "unauthorized" until a login succeeds
    // (default: not required).
    void setRequireLogin(bool required) { m_requireLogin = required; }
    bool isSignedIn() const { return m_signedIn; }
    // Forgets the sign-in, as a device does after a restart.
    void forgetLogin() { m_signedIn = false; }
    // "getState" answers with this game's current envelope (not owned).
    void setGame(Game* game) { m_game = game; }
    // Answers the next `n` requests with the busy error.
    void setBusyReplies(int n) { m_busyReplies = n; }
    int busyReplies() const { return m_busyReplies; }
    // Always answers `method` with `result` (replaces the built-in answer).
    void setResult(const QString& method, const QJsonObject& result);
    // Answers the next request for `method` with this error, once.
    void failNext(const QString& method, const QString& code, const QString& message);
    // The ESP-NOW role ("off" or "tx"); with "tx" the Wi-Fi is off and "scanWifi" fails.
    void setEspNowRole(const QString& role);

    // The reply document for one request document.
    QJsonObject handle(const QJsonObject& request);
    // The same for request text; text that is not a JSON object gets a "bad_request" reply.
    QByteArray handle(const QByteArray& requestJson);

    // What the device holds, for tests to check.
    QJsonObject settings() const { return m_settings; }
    QJsonObject controller() const { return m_controller; }
    QString wifiSsid() const { return m_wifiSsid; }
    QString apiToken() const { return m_apiToken; }
    QStringList methodsSeen() const { return m_methodsSeen; }

    static QJsonObject errorReply(const QJsonValue& id, const QString& code,
                                  const QString& message);
    static QJsonObject okReply(const QJsonValue& id, const QJsonObject& result);

Q_SIGNALS:
    void requestHandled(const QString& method, bool ok);
    void rebootRequested();

private:
    struct Answer
    {
        bool ok = true;
        QJsonObject result;
        QString code;
        QString message;
    };
    using Handler = Answer (AdminResponder::*)(const QJsonObject& params);

    Answer dispatch(const QString& method, const QJsonObject& params);
    static const QHash<QString, Handler>& handlers();

    Answer login(const QJsonObject& params);
    Answer changePassword(const QJsonObject& params);
    Answer getStatus(const QJsonObject& params);
    Answer networkTest(const QJsonObject& params);
    Answer ensureApiToken(const QJsonObject& params);
    Answer getSettings(const QJsonObject& params);
    Answer setSettings(const QJsonObject& params);
    Answer getControllerList(const QJsonObject& params);
    Answer getControllerConfig(const QJsonObject& params);
    Answer setControllerConfig(const QJsonObject& params);
    Answer scanWifi(const QJsonObject& params);
    Answer configureWifi(const QJsonObject& params);
    Answer getState(const QJsonObject& params);
    Answer reboot(const QJsonObject& params);
    Answer otaCheck(const QJsonObject& params);
    Answer otaApply(const QJsonObject& params);
    Answer otaProgress(const QJsonObject& params);
    Answer c6OtaStatus(const QJsonObject& params);
    Answer c6OtaApply(const QJsonObject& params);
    Answer getMqttConfig(const QJsonObject& params);
    Answer setMqttConfig(const QJsonObject& params);
    Answer getDeviceId(const QJsonObject& params);
    Answer setDeviceId(const QJsonObject& params);
    Answer provision(const QJsonObject& params);
    Answer blePasskey(const QJsonObject& params);
    Answer getEspNow(const QJsonObject& params);
    Answer setEspNow(const QJsonObject& params);

    static QJsonArray controllerCatalogue();
    static QJsonArray wifiNetworks();
    static QString randomHex(int bytes);

    QString m_password = QString::fromLatin1(DefaultPassword);
    bool m_mustChangePassword = false;
    bool m_requireLogin = false;
    bool m_signedIn = false;
    int m_busyReplies = 0;
    QPointer<Game> m_game;
    QHash<QString, QJsonObject> m_fixedResults;
    QHash<QString, std::pair<QString, QString>> m_nextFailures;
    QStringList m_methodsSeen;

    QString m_deviceId = QStringLiteral("VT-0042");
    QJsonObject m_settings;
    QJsonObject m_controller;
    QJsonObject m_mqtt;
    QString m_wifiSsid;
    QString m_wifiIp;
    QJsonObject m_wifiProvision;
    QString m_apiToken;
    QJsonObject m_espNow;
    int m_otaPercent = -1; // -1: no update running
    bool m_provisioned = false;
};

} // namespace vantorelle::sim
