#include "manage_dialog.h"

#include "answer_lines.h"
#include "controller_catalogue.h"
#include "panel_style.h"

#include <QComboBox>
#include <QFormLayout>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

QPushButton* addButton(QVBoxLayout* layout, const QString& text, const char* name)
{
    auto* button = new QPushButton(text);
    button->setObjectName(QLatin1String(name));
    layout->addWidget(button);
    return button;
}

QComboBox* addCombo(QFormLayout* form, const QString& label, const char* name)
{
    auto* combo = new QComboBox;
    combo->setObjectName(QLatin1String(name));
    form->addRow(label, combo);
    return combo;
}

void addUnique(QComboBox* combo, const QString& text, const QString& value)
{
    if (combo->findData(value) < 0)
        combo->addItem(text, value);
}

} // namespace

ManageDialog::ManageDialog(const QString& deviceId, PortalClient* portal, QWidget* parent)
    : QDialog(parent), m_deviceId(deviceId), m_portal(portal)
{
    setWindowTitle(QStringLiteral("Manage %1").arg(deviceId));
    auto* layout = new QVBoxLayout(this);

    auto* intro = new QLabel(QStringLiteral(
        "These actions reach the device through your Vantorelle account, so it must be online."));
    intro->setWordWrap(true);
    layout->addWidget(intro);
    connect(addButton(layout, QStringLiteral("Check device status"), "checkStatus"),
            &QPushButton::clicked, this, &ManageDialog::checkStatus);

    layout->addWidget(new QLabel(QStringLiteral("<b>Scoreboard</b>")));
    auto* form = new QFormLayout;
    m_manufacturer = addCombo(form, QStringLiteral("Manufacturer"), "manufacturer");
    m_model = addCombo(form, QStringLiteral("Model"), "model");
    m_sport = addCombo(form, QStringLiteral("Sport"), "sport");
    m_inputType = addCombo(form, QStringLiteral("Input type"), "inputType");
    layout->addLayout(form);
    fillScoreboardChoices();
    connect(addButton(layout, QStringLiteral("Change scoreboard"), "changeScoreboard"),
            &QPushButton::clicked, this, &ManageDialog::changeScoreboard);

    connect(addButton(layout, QStringLiteral("Check for update"), "checkUpdate"),
            &QPushButton::clicked, this, &ManageDialog::checkForUpdate);
    connect(addButton(layout, QStringLiteral("Restart device"), "restartDevice"),
            &QPushButton::clicked, this, &ManageDialog::restartDevice);

    m_status = new QLabel;
    m_status->setObjectName(QStringLiteral("status"));
    m_status->setWordWrap(true);
    layout->addWidget(m_status);
    m_result = new QLabel;
    m_result->setObjectName(QStringLiteral("result"));
    m_result->setWordWrap(true);
    m_result->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_result);
}

void ManageDialog::fillScoreboardChoices()
{
    for (const ControllerChoice& choice : controllerCatalogue()) {
        addUnique(m_manufacturer, choice.manufacturer, choice.manufacturer);
        addUnique(m_sport, controllerWordLabel(choice.sport), choice.sport);
        addUnique(m_inputType, controllerWordLabel(choice.input_type), choice.input_type);
    }
    // The models follow the chosen manufacturer.
    const auto fillModels = [this] {
        m_model->clear();
        const QString manufacturer = m_manufacturer->currentData().toString();
        for (const ControllerChoice& choice : controllerCatalogue()) {
            if (choice.manufacturer == manufacturer && m_model->findText(choice.model) < 0)
                m_model->addItem(choice.model);
        }
    };
    connect(m_manufacturer, &QComboBox::currentIndexChanged, this, fillModels);
    fillModels();
}

std::function<void(const PortalResult&)>
ManageDialog::guarded(std::function<void(const PortalResult&)> fn)
{
    const QPointer<ManageDialog> alive(this);
    return [alive, fn = std::move(fn)](const PortalResult& result) {
        if (alive)
            fn(result);
    };
}

void ManageDialog::run(const QString& command, const QJsonObject& args,
                       std::function<void(const PortalResult&)> done)
{
    if (!m_portal)
        return;
    m_portal->sendCommand(m_deviceId, command, args,
                          guarded([this, done = std::move(done)](const PortalResult& result) {
                              if (!result.ok)
                                  showFailure(result);
                              if (done)
                                  done(result);
                          }));
}

QString ManageDialog::statusLines(const PortalResult& result)
{
    const QString lines = answerLines(result.data);
    return lines.isEmpty() ? QStringLiteral("The device answered.") : lines;
}

void ManageDialog::waitFor(const QString& text)
{
    showMessage(m_status, text, MessageKind::Plain);
}

void ManageDialog::showFailure(const PortalResult& result)
{
    showMessage(m_status, result.message, MessageKind::Failure);
}

void ManageDialog::showSuccess(const QString& status, const QString& result)
{
    showMessage(m_status, status, MessageKind::Plain);
    if (!result.isNull())
        m_result->setText(result);
}

void ManageDialog::checkStatus()
{
    waitFor(QStringLiteral("Asking the device…"));
    run(QStringLiteral("get_status"), {}, [this](const PortalResult& result) {
        if (result.ok)
            showSuccess(QStringLiteral("Status received."), statusLines(result));
    });
}

void ManageDialog::changeScoreboard()
{
    if (!m_portal)
        return;
    waitFor(QStringLiteral("Sending to the device…"));
    const QJsonObject config{
        {QStringLiteral("manufacturer"), m_manufacturer->currentData().toString()},
        {QStringLiteral("model"), m_model->currentText()},
        {QStringLiteral("sport"), m_sport->currentData().toString()},
        {QStringLiteral("input_type"), m_inputType->currentData().toString()}};
    m_portal->setConfig(m_deviceId, config, guarded([this](const PortalResult& result) {
                            if (!result.ok)
                                return showFailure(result);
                            showSuccess(QStringLiteral("The device accepted the new scoreboard."),
                                        QString());
                        }));
}

void ManageDialog::checkForUpdate()
{
    waitFor(QStringLiteral("Checking for a firmware update…"));
    run(QStringLiteral("ota_check"), {}, [this](const PortalResult& result) {
        if (result.ok)
            showSuccess(QStringLiteral("Update check finished."), statusLines(result));
    });
}

void ManageDialog::restartDevice()
{
    waitFor(QStringLiteral("Restarting…"));
    run(QStringLiteral("reboot"), {}, [this](const PortalResult& result) {
        if (!result.ok)
            return;
        const bool queued = result.data.value(QStringLiteral("queued")).toBool();
        showSuccess(queued ? QStringLiteral("The device is offline; it will restart when it "
                                            "reconnects.")
                           : QStringLiteral("Restart sent."),
                    QString());
    });
}

} // namespace vantorelle
