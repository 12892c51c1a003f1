#include "dock.h"

#include "account_panel.h"
#include "core/app.h"
#include "device_panel.h"
#include "live_status_panel.h"
#include "relay_panel.h"
#include "scene_panel.h"
#include "server_panel.h"
#include "update_panel.h"

#include <QScrollArea>
#include <QVBoxLayout>

namespace vantorelle {

Dock::Dock(App* app, SceneActions* sceneActions, QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("vantorelleDockContents"));
    auto* content = new QWidget;
    auto* sections = new QVBoxLayout(content);
    sections->setSpacing(12);
    const auto addSection = [sections](QWidget* section) { sections->addWidget(section); };
    addSection(new AccountPanel(&app->portal()));
    addSection(new DevicePanel(app));
    addSection(new LiveStatusPanel(app->sourceManager()));
    if (sceneActions)
        addSection(new ScenePanel(sceneActions));
    addSection(new ServerPanel(app));
    addSection(new RelayPanel(app));
    addSection(new UpdatePanel(&app->updater(), &app->settings()));
    sections->addStretch(1);

    // A narrow column scrolls rather than squeezing the sections.
    auto* scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setWidget(content);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
}

} // namespace vantorelle
