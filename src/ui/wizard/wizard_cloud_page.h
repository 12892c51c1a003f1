#pragma once

#include "device_session.h"

#include <QPointer>
#include <QString>
#include <QWidget>

class QLabel;
class QLineEdit;
class QPushButton;

namespace vantorelle {

class App;

// Adds the device to the signed-in portal account, so that its scores and graphics are there
// too. Offered only while the portal is signed in.
class WizardCloudPage : public QWidget
{
    Q_OBJECT

public:
    // `via`: how the device was found, "lan" or "manual".
    WizardCloudPage(App* app, DeviceSession* session, const QString& via,
                    QWidget* parent = nullptr);

    void addToAccount();

private:
    void followSignIn();
    void fail(const QString& sentence);

    App* m_app;
    QPointer<DeviceSession> m_session;
    QString m_via;
    QLabel* m_account = nullptr;
    QLineEdit* m_code = nullptr;
    QPushButton* m_add = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
