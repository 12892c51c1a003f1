#include "manage_dialog.h"

#include "answer_lines.h"
#include "controller_panel.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QComboBox>
#include <QFormLayout>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
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

ManageDialog::ManageDialog(const QString& deviceId, PortalClient* portal,
                           const QList<ControllerChoice>& controllers, QWidget* parent)
    : QDialog(parent), m_deviceId(deviceId), m_portal(portal), m_controllers(controllers)
{
    setWindowTitle(uiText("Manage.Title").arg(deviceId));
    auto* layout = new QVBoxLayout(this);

    auto* intro = new QLabel(uiText("Manage.Intro"));
    intro->setWordWrap(true);
    layout->addWidget(intro);
    connect(addButton(layout, uiText("Manage.CheckStatus"), "checkStatus"), &QPushButton::clicked,
            this, &ManageDialog::checkStatus);

    layout->addWidget(heading(uiText("Manage.Scoreboard")));
    auto* form = new QFormLayout;
    m_boxes[0] = addCombo(form, uiText("Manage.Manufacturer"), "manufacturer");
    m_boxes[1] = addCombo(form, uiText("Manage.Model"), "model");
    m_boxes[2] = addCombo(form, uiText("Manage.Sport"), "sport");
    m_boxes[3] = addCombo(form, uiText("Manage.InputType"), "inputType");
    layout->addLayout(form);
    fillScoreboardChoices();
    connect(addButton(layout, uiText("Manage.ChangeScoreboard"), "changeScoreboard"),
            &QPushButton::clicked, this, &ManageDialog::changeScoreboard);

    connect(addButton(layout, uiText("Manage.CheckUpdate"), "checkUpdate"), &QPushButton::clicked,
            this, &ManageDialog::checkForUpdate);
    connect(addButton(layout, uiText("Manage.Restart"), "restartDevice"), &QPushButton::clicked,
            this, &ManageDialog::restartDevice);

    m_status = new QLabel;
    m_status->setObjectName(QStringLiteral("status"));
    m_status->setWordWrap(true);
    layout->addWidget(m_status);
    m_result = new QLabel;
    m_result->setObjectName(QStringLiteral("result"));
    m_result->setWordWrap(true);
    m_result->setTextFormat(Qt::PlainText); // the device's answer, never markup
    m_result->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(m_result);
}

void ManageDialog::fillScoreboardChoices()
{
    if (m_controllers.isEmpty()) {
        // No device has listed its controllers yet.
        for (const QString& maker : builtInMakers())
            addUnique(m_boxes[0], maker, maker);
        m_boxes[1]->setEditable(true);
        m_boxes[1]->lineEdit()->setPlaceholderText(uiText("Manage.ModelPlaceholder"));
        for (const QString& sport : knownSports())
            addUnique(m_boxes[2], controllerWordLabel(sport), sport);
        for (const QString& input : knownInputTypes())
            addUnique(m_boxes[3], controllerWordLabel(input), input);
        return;
    }
    // Each choice narrows the ones below it to the combinations the list has.
    const auto chosen = [this] {
        ControllerChoice choice;
        for (int level = 0; level < 4; ++level)
            setControllerValue(choice, level, m_boxes[level]->currentData().toString());
        return choice;
    };
    for (int level = 0; level < 3; ++level)
        connect(m_boxes[level], &QComboBox::activated, this, [this, level, chosen] {
            refillControllerChoices(m_boxes, m_controllers, level + 1, chosen());
        });
    refillControllerChoices(m_boxes, m_controllers, 0, {});
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
        return setActionsEnabled(true);
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
    return lines.isEmpty() ? uiText("Manage.Answered") : lines;
}

void ManageDialog::waitFor(const QString& text)
{
    showMessage(m_status, text, MessageKind::Plain);
    setActionsEnabled(false);
}

// One command at a time: the buttons wait for the answer.
void ManageDialog::setActionsEnabled(bool enabled)
{
    for (QPushButton* button : findChildren<QPushButton*>())
        button->setEnabled(enabled);
}

void ManageDialog::showFailure(const PortalResult& result)
{
    setActionsEnabled(true);
    showMessage(m_status, result.message, MessageKind::Failure);
}

void ManageDialog::showSuccess(const QString& status, const QString& result)
{
    setActionsEnabled(true);
    showMessage(m_status, status, MessageKind::Plain);
    if (!result.isNull())
        m_result->setText(result);
}

void ManageDialog::checkStatus()
{
    waitFor(uiText("Manage.Asking"));
    run(QStringLiteral("get_status"), {}, [this](const PortalResult& result) {
        if (result.ok)
            showSuccess(uiText("Manage.StatusReceived"), statusLines(result));
    });
}

void ManageDialog::changeScoreboard()
{
    if (!m_portal)
        return;
    waitFor(uiText("Manage.Sending"));
    const QJsonObject config{{QStringLiteral("manufacturer"), m_boxes[0]->currentData().toString()},
                             {QStringLiteral("model"), m_boxes[1]->currentText().trimmed()},
                             {QStringLiteral("sport"), m_boxes[2]->currentData().toString()},
                             {QStringLiteral("input_type"), m_boxes[3]->currentData().toString()}};
    m_portal->setConfig(m_deviceId, config, guarded([this](const PortalResult& result) {
                            if (!result.ok)
                                return showFailure(result);
                            showSuccess(uiText("Manage.ScoreboardAccepted"), QString());
                        }));
}

void ManageDialog::checkForUpdate()
{
    waitFor(uiText("Manage.CheckingUpdate"));
    run(QStringLiteral("ota_check"), {}, [this](const PortalResult& result) {
        if (result.ok)
            showSuccess(uiText("Manage.UpdateChecked"), statusLines(result));
    });
}

void ManageDialog::restartDevice()
{
    waitFor(uiText("Manage.Restarting"));
    run(QStringLiteral("reboot"), {}, [this](const PortalResult& result) {
        if (!result.ok)
            return;
        const bool queued = result.data.value(QStringLiteral("queued")).toBool();
        showSuccess(queued ? uiText("Manage.RestartQueued") : uiText("Manage.RestartSent"),
                    QString());
    });
}

} // namespace vantorelle
