#pragma once

#include <QList>
#include <QWidget>

class QLabel;
class QLineEdit;
class QPushButton;

namespace vantorelle {

class PortalClient;
struct PortalResult;

// Signs the user in to the portal (with the one-time code step when the account has one), shows
// who is signed in and signs out.
class AccountSection : public QWidget
{
    Q_OBJECT

public:
    explicit AccountSection(PortalClient* portal, QWidget* parent = nullptr);

private:
    QWidget* buildSignInPage();
    QWidget* buildCodePage();
    QWidget* buildSignedInPage();
    void signIn();
    void submitCode();
    void showSignedIn();
    void showPage(int page);
    void finishSignIn(const PortalResult& result);
    void finishCode(const PortalResult& result);
    void showFailure(const QString& message);
    void setBusy(bool busy);

    PortalClient* m_portal;
    QList<QWidget*> m_pages; // sign-in, one-time code, signed in
    QLineEdit* m_email = nullptr;
    QLineEdit* m_password = nullptr;
    QPushButton* m_signIn = nullptr;
    QLineEdit* m_code = nullptr;
    QPushButton* m_verify = nullptr;
    QLabel* m_account = nullptr;
    QLabel* m_error = nullptr;
    // The portal's handle for a sign-in waiting for its one-time code.
    QString m_challenge;
};

} // namespace vantorelle
