#include "dock.h"

#include "account_section.h"
#include "app.h"
#include "device_section.h"
#include "live_panel.h"
#include "live_status_section.h"
#include "relay_section.h"
#include "scene_section.h"
#include "server_section.h"
#include "update_section.h"

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
    addSection(new AccountSection(&app->portal()));
    addSection(new DeviceSection(app));
    addSection(new LiveStatusSection(app->sourceManager()));
    addSection(new LivePanel(app));
    if (sceneActions)
        addSection(new SceneSection(sceneActions));
    addSection(new ServerSection(app));
    addSection(new RelaySection(app));
    addSection(new UpdateSection(&app->updater(), &app->settings()));
    sections->addStretch(1);

    // A narrow column scrolls rather than squeezing the sections.
    auto* scroll = new QScrollArea;
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setWidget(content);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    // The update banner stays in sight above the scrolling sections.
    layout->addWidget(new UpdateBanner(&app->updater()));
    layout->addWidget(scroll);
}

} // namespace vantorelle
