#include "firmware_panel.h"

#include "panel_style.h"
#include "ui_text.h"

#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

QString word(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

bool isFinished(const QString& state)
{
    return state == QLatin1String("done") || state == QLatin1String("ok") ||
           state == QLatin1String("success");
}

bool isFailed(const QString& state)
{
    return state == QLatin1String("error") || state == QLatin1String("failed");
}

QString restartSentence()
{
    return uiText("Device.Firmware.RestartingNew");
}

} // namespace

FirmwarePanel::FirmwarePanel(DeviceSession* session, QWidget* parent)
    : AdminPanel(session, "firmwarePanel", uiText("Device.Firmware.Title"), parent)
{
    QPushButton* check = addAction(uiText("Device.Firmware.Check"), "checkFirmware");
    body()->addWidget(check, 0, Qt::AlignLeft);
    m_firmware = addAnswerLabel(QStringLiteral("firmwareLines"));
    QPushButton* install = addAction(uiText("Device.Firmware.Install"), "installFirmware");
    body()->addWidget(install, 0, Qt::AlignLeft);
    m_progress = new QProgressBar;
    m_progress->setObjectName(QStringLiteral("firmwareProgress"));
    m_progress->setRange(0, 100);
    m_progress->setVisible(false);
    body()->addWidget(m_progress);

    body()->addWidget(heading(uiText("Device.Firmware.Radio")));
    QPushButton* radio = addAction(uiText("Device.Firmware.CheckRadio"), "checkRadio");
    body()->addWidget(radio, 0, Qt::AlignLeft);
    m_radio = addAnswerLabel(QStringLiteral("radioLines"));
    QPushButton* radioUpdate = addAction(uiText("Device.Firmware.UpdateRadio"), "updateRadio");
    body()->addWidget(radioUpdate, 0, Qt::AlignLeft);
    body()->addStretch();

    m_progressTimer.setInterval(DefaultProgressIntervalMs);
    connect(&m_progressTimer, &QTimer::timeout, this, &FirmwarePanel::pollProgress);
    connect(check, &QPushButton::clicked, this, &FirmwarePanel::checkForUpdate);
    connect(install, &QPushButton::clicked, this, &FirmwarePanel::installUpdate);
    connect(radio, &QPushButton::clicked, this, &FirmwarePanel::checkRadio);
    connect(radioUpdate, &QPushButton::clicked, this, &FirmwarePanel::updateRadio);
}

void FirmwarePanel::checkForUpdate()
{
    askAndShow(uiText("Device.Firmware.Checking"), &DeviceSession::otaCheck, m_firmware);
}

void FirmwarePanel::installUpdate()
{
    confirmThen(uiText("Device.Firmware.InstallQuestion"),
                uiText("Device.Firmware.InstallConsequence"),
                uiText("Device.Firmware.InstallConfirm"), [this] { installNow(); });
}

void FirmwarePanel::installNow()
{
    m_progress->setValue(0);
    ask(uiText("Device.Firmware.Starting"), &DeviceSession::otaApply,
        [this](const RpcResult& result) {
            if (!result.ok)
                return endUnlessRestarting(result.message);
            m_progress->setVisible(true);
            m_progressTimer.start();
        });
}

void FirmwarePanel::pollProgress()
{
    if (m_progressOutstanding)
        return;
    if (!sessionReady()) {
        // Signing in again silently is only a pause; anything else ends the conversation.
        if (session() && session()->state() == DeviceSession::State::SigningIn)
            return;
        return endUnlessRestarting(uiText("Device.ConnectionLost"));
    }
    m_progressOutstanding = true;
    session()->otaProgress(guarded([this](const RpcResult& result) {
        m_progressOutstanding = false;
        if (!m_progressTimer.isActive())
            return;
        if (result.ok)
            return showProgress(result.result);
        endUnlessRestarting(result.message);
    }));
}

void FirmwarePanel::showProgress(const QJsonObject& progress)
{
    const QString state = word(progress, "state");
    const int percent = qBound(0, progress.value(QLatin1String("percent")).toInt(), 100);
    if (isFailed(state)) {
        QString why = word(progress, "error");
        if (why.isEmpty())
            why = word(progress, "detail");
        return endInstallation(false, why.isEmpty() ? uiText("Device.Firmware.Failed") : why);
    }
    m_progress->setValue(percent);
    if (isFinished(state) || percent >= 100)
        return endInstallation(true, uiText("Device.Firmware.Installed"));
    begin(uiText("Device.Firmware.Installing").arg(percent));
}

void FirmwarePanel::endInstallation(bool ok, const QString& text)
{
    m_progressTimer.stop();
    if (ok)
        succeed(text);
    else
        fail(text);
}

// The device drops the link when it restarts into the new firmware: that is how it ends well.
void FirmwarePanel::endUnlessRestarting(const QString& failure)
{
    const bool restarting = session() && (session()->isRestarting() ||
                                          session()->state() == DeviceSession::State::Restarting);
    endInstallation(restarting, restarting ? restartSentence() : failure);
}

void FirmwarePanel::checkRadio()
{
    askAndShow(uiText("Device.Firmware.ReadingRadio"), &DeviceSession::c6OtaStatus, m_radio);
}

void FirmwarePanel::updateRadio()
{
    ask(uiText("Device.Firmware.StartingRadio"), &DeviceSession::c6OtaApply,
        [this](const RpcResult& result) {
            settle(result, uiText("Device.Firmware.RadioStarted"));
        });
}

} // namespace vantorelle
