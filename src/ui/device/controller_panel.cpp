#include "controller_panel.h"

#include "settings_store.h"
#include "ui_text.h"

#include <QComboBox>
#include <QFormLayout>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

constexpr int Levels = 4;

QString describe(const ControllerChoice& choice)
{
    return uiText("Device.Controller.Choice")
        .arg(choice.manufacturer, choice.model, controllerWordLabel(choice.sport),
             controllerWordLabel(choice.input_type));
}

} // namespace

ControllerPanel::ControllerPanel(DeviceSession* session, SettingsStore* settings, QWidget* parent)
    : AdminPanel(session, "controllerPanel", uiText("Device.Controller.Title"), parent),
      m_settings(settings)
{
    static const char* const names[Levels] = {"controllerManufacturer", "controllerModel",
                                              "controllerSport", "controllerInput"};
    const QString labels[Levels] = {
        uiText("Device.Controller.Manufacturer"), uiText("Device.Controller.Model"),
        uiText("Device.Controller.Sport"), uiText("Device.Controller.Input")};
    auto* form = new QFormLayout;
    for (int level = 0; level < Levels; ++level) {
        m_boxes[level] = new QComboBox;
        m_boxes[level]->setObjectName(QLatin1String(names[level]));
        form->addRow(labels[level], m_boxes[level]);
        connect(m_boxes[level], &QComboBox::activated, this,
                [this, level] { refill(level + 1, chosen()); });
    }
    body()->addLayout(form);
    QPushButton* set = addAction(uiText("Device.Controller.Set"), "setController");
    body()->addWidget(set);
    body()->addStretch();
    connect(set, &QPushButton::clicked, this, &ControllerPanel::apply);
}

void ControllerPanel::load()
{
    if (!canStart())
        return;
    begin(uiText("Device.Controller.Reading"));
    session()->listControllers(
        guarded([this](const RpcResult& result, const QList<ControllerChoice>& controllers) {
            if (!result.ok) {
                fail(result.message);
                return;
            }
            m_controllers = controllers;
            if (m_settings && !controllers.isEmpty())
                m_settings->setControllerList(controllersToJson(controllers));
            if (!stillConnected())
                return;
            session()->getControllerConfig(
                guarded([this](const RpcResult& config, const ControllerChoice& current) {
                    if (settle(config))
                        refill(0, current);
                }));
        }));
}

void ControllerPanel::apply()
{
    if (!canStart())
        return;
    const ControllerChoice choice = chosen();
    if (choice.manufacturer.isEmpty()) {
        fail(uiText("Device.Controller.NotListed"));
        return;
    }
    begin(uiText("Device.Controller.Setting"));
    session()->setController(choice, guarded([this, choice](const RpcResult& result) {
                                 settle(result,
                                        uiText("Device.Controller.Done").arg(describe(choice)));
                             }));
}

ControllerChoice ControllerPanel::chosen() const
{
    QString values[Levels];
    for (int level = 0; level < Levels; ++level)
        values[level] = m_boxes[level]->currentData().toString();
    return {values[0], values[1], values[2], values[3]};
}

void refillControllerChoices(QComboBox* const (&boxes)[4],
                             const QList<ControllerChoice>& controllers, int level,
                             ControllerChoice picked)
{
    for (; level < Levels; ++level) {
        QComboBox* box = boxes[level];
        const QSignalBlocker blocker(box);
        box->clear();
        for (const QString& value : controllerOptions(controllers, level, picked))
            box->addItem(level < 2 ? value : controllerWordLabel(value), value);
        box->setCurrentIndex(qMax(0, box->findData(controllerValue(picked, level))));
        setControllerValue(picked, level, box->currentData().toString());
    }
}

void ControllerPanel::refill(int level, ControllerChoice picked)
{
    refillControllerChoices(m_boxes, m_controllers, level, picked);
}

} // namespace vantorelle
