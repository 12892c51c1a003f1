#pragma once

#include "atomic_file.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QNetworkCookie>
#include <QNetworkCookieJar>
#include <QObject>
#include <QSslCertificate>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>
#include <utility>

class QNetworkAccessManager;
class QNetworkReply;

namespace vantorelle {

// The answer to every portal call.
struct PortalResult
{
    bool ok = false;   // no network error and an HTTP status from 200 to 299
    qint32 status = 0; // 0 when no HTTP reply arrived
    QJsonObject data;  // the reply body when it is a JSON object
    QString error;     // the portal's machine code; empty on success
    QString message;   // what to show the user; empty on success
};

// One device on the signed-in account.
struct PortalDevice
{
    QString deviceId;
    QString nickname;
    QString status;
    QString blePasskey;
};

// One hosted overlay page of the account.
struct GraphicsOutput
{
    QString id;
    QString name;
    QString shareToken;
    QString deviceId;
    int width = 1920;
    int height = 1080;
    QString url; // base address + "/graphics/o/" + share token, percent-encoded
};

// The user-facing sentence for a failed portal call.
QString portalErrorText(int status, const QString& code, const QString& detail);

// What a portal answer means: `status` 0 when no HTTP reply arrived, `transferred` false when the
// network reported an error, `body` the bytes of the reply.
PortalResult portalResult(int status, bool transferred, const QByteArray& body);

// The only client of the maker's cloud portal. Every call ends in exactly one callback, on the
// thread that made it; failures come back as values with a ready-made message.
class PortalClient : public QObject
{
    Q_OBJECT

public:
    using Callback = std::function<void(const PortalResult& result)>;

    // Keeps the session cookies in a file so that a sign-in survives a restart.
    class Jar : public QNetworkCookieJar
    {
    public:
        explicit Jar(QObject* parent = nullptr);

        void setPath(const QString& path) { m_path = path; }
        QString path() const { return m_path; }
        // Replaces how a save writes its bytes (tests fail saves through it).
        void setSaveWriter(SaveWriter writer) { m_writer = std::move(writer); }

        // Replaces every cookie with those in the file; an unreadable file leaves the jar as is.
        void load();
        // Replaces every cookie with those in `bytes`, a file's contents.
        void loadBytes(const QByteArray& bytes);
        // Writes fileBytes(); failures are silent.
        void save() const;
        // Session cookies and unexpired persistent ones that read back as themselves, one line
        // each in a JSON array.
        QByteArray fileBytes() const;
        // Forgets every cookie and deletes the file.
        void clear();

        QList<QNetworkCookie> cookies() const { return allCookies(); }

    private:
        QString m_path;
        SaveWriter m_writer;
    };

    static constexpr int DefaultTransferTimeoutMs = 20000;

    // `baseUrl`: scheme, host and optional port, without a trailing slash.
    explicit PortalClient(const QString& baseUrl = QStringLiteral(VANTORELLE_PORTAL_URL),
                          QObject* parent = nullptr);
    ~PortalClient() override;

    QString baseUrl() const { return m_base; }
    Jar* jar() const { return m_jar; }
    void setTransferTimeout(int ms) { m_transferTimeoutMs = ms; }
    // Accepts servers whose chain ends in one of these, besides the system's authorities.
    void addTrustedCertificates(const QList<QSslCertificate>& certificates);

    bool isSignedIn() const { return m_signedIn; }
    QString email() const { return m_email; }
    QString role() const { return m_role; }

    void signIn(const QString& email, const QString& password, Callback callback);
    void signInWithCode(const QString& challengeId, const QString& code, Callback callback);
    void restoreSession(Callback callback);
    // Tells the portal without waiting, forgets the cookies at once and signs out.
    void signOut();

    void listDevices(Callback callback);
    void listOutputs(Callback callback);
    void deviceState(const QString& deviceId, Callback callback);
    void sendCommand(const QString& deviceId, const QString& name, const QJsonObject& args,
                     Callback callback);
    void setConfig(const QString& deviceId, const QJsonObject& config, Callback callback);
    void linkDevice(const QString& deviceId, const QString& via, const QString& code,
                    Callback callback);
    void revealPairing(const QString& deviceId, Callback callback);
    void setPairing(const QString& deviceId, const QString& adminPassword, Callback callback);

    static QList<PortalDevice> parseDevices(const PortalResult& result);
    QList<GraphicsOutput> parseOutputs(const PortalResult& result) const;

Q_SIGNALS:
    void signedInChanged(bool signedIn);

protected:
    // Every call goes through here. Protected so that a subclass can reach portal routes that
    // have no named call yet.
    void request(const QByteArray& verb, const QString& path,
                 const std::optional<QJsonObject>& body, Callback callback, bool signOutOn401);

private:
    void complete(QNetworkReply* reply, const Callback& callback, bool signOutOn401);
    // Callback that applies the account on success before passing the result on.
    Callback applyingAccount(Callback callback);
    void applyAccount(const QJsonObject& data);
    void setSignedIn(bool signedIn);

    QNetworkAccessManager* m_network;
    Jar* m_jar;
    bool m_signedIn = false;
    QString m_email;
    QString m_role;
    QString m_base;
    int m_transferTimeoutMs = DefaultTransferTimeoutMs;
    QList<QSslCertificate> m_trusted;
};

} // namespace vantorelle
