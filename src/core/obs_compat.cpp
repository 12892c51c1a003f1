#include "obs_compat.h"

#include <obs-frontend-api.h>
#include <obs.h>

#include <QDockWidget>
#include <QWidget>

namespace vantorelle::compat {

#if LIBOBS_API_VER >= MAKE_SEMANTIC_VERSION(30, 0, 0)

bool addDock(const char* id, const char* title, QWidget* widget)
{
    return obs_frontend_add_dock_by_id(id, title, widget);
}

void removeDock(const char* id)
{
    obs_frontend_remove_dock(id);
}

#else

bool addDock(const char* id, const char* title, QWidget* widget)
{
    auto* dock = new QDockWidget;
    dock->setObjectName(QString::fromUtf8(id));
    dock->setWindowTitle(QString::fromUtf8(title));
    dock->setWidget(widget);
    if (obs_frontend_add_dock(dock))
        return true;
    widget->setParent(nullptr);
    delete dock;
    return false;
}

void removeDock(const char*)
{
    // This OBS has no call to take a dock out; its main window owns it and closes it.
}

#endif

} // namespace vantorelle::compat
