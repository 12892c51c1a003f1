#include "dock.h"

#include "core/app.h"
#include "live/hosted_server.h"

#include <QLabel>
#include <QVBoxLayout>

namespace vantorelle {

Dock::Dock(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("vantorelleDockContents"));
    auto* layout = new QVBoxLayout(this);
    m_source = new QLabel(this);
    m_source->setObjectName(QStringLiteral("liveSource"));
    m_source->setWordWrap(true);
    m_server = new QLabel(this);
    m_server->setObjectName(QStringLiteral("serverState"));
    m_server->setWordWrap(true);
    layout->addWidget(m_source);
    layout->addWidget(m_server);
    layout->addStretch(1);

    if (App* app = App::instance()) {
        connect(app, &App::serverStateChanged, this, &Dock::showServerState);
        connect(&app->live(), &LiveData::sourceChanged, this, &Dock::showLiveSource);
    }
    showServerState();
    showLiveSource();
}

void Dock::showLiveSource()
{
    App* app = App::instance();
    const QString source = app ? app->live().source() : QString();
    m_source->setText(source.isEmpty() ? tr("No live-data device chosen yet.")
                                       : tr("Live data from %1").arg(source));
}

void Dock::showServerState()
{
    App* app = App::instance();
    HostedServer* server = app ? app->server() : nullptr;
    if (!server) {
        m_server->clear();
    } else if (server->isListening()) {
        m_server->setText(
            tr("Sharing server on port %1, %n client(s)", nullptr, server->clientCount())
                .arg(server->serverPort()));
    } else if (!server->lastError().isEmpty()) {
        m_server->setText(server->lastError());
    } else {
        m_server->setText(tr("Sharing server off"));
    }
}

} // namespace vantorelle
