#include "server_section.h"

#include "app.h"
#include "hosted_server.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QLabel>
#include <QSpinBox>
#include <QVBoxLayout>

namespace vantorelle {

ServerSection::ServerSection(App* app, QWidget* parent) : QWidget(parent), m_app(app)
{
    auto* layout = sectionLayout(this, "serverPanel", uiText("Dock.Server"));
    m_enabled = new QCheckBox(uiText("Dock.ServerEnabled"));
    m_enabled->setObjectName(QStringLiteral("serverEnabled"));
    m_port = new QSpinBox;
    m_port->setObjectName(QStringLiteral("serverPort"));
    m_port->setRange(1, 65535);
    // A port is applied once typed in full, not at every digit.
    m_port->setKeyboardTracking(false);
    m_allowNetwork = new QCheckBox(uiText("Dock.ServerAllowNetwork"));
    m_allowNetwork->setObjectName(QStringLiteral("serverAllowNetwork"));
    m_state = wrappedLabel(QStringLiteral("serverState"));
    m_browserPort = new QSpinBox;
    m_browserPort->setObjectName(QStringLiteral("browserPort"));
    m_browserPort->setRange(0, 65535);
    m_browserPort->setSpecialValueText(uiText("Dock.BrowserPortOff"));
    m_browserPort->setKeyboardTracking(false);
    m_browserPort->setToolTip(uiText("Dock.BrowserPortTip"));
    m_browserState = wrappedLabel(QStringLiteral("browserState"));
    m_browserState->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* form = new QFormLayout;
    form->addRow(uiText("Dock.ServerPort"), m_port);
    form->addRow(uiText("Dock.BrowserPort"), m_browserPort);
    layout->addWidget(m_enabled);
    layout->addLayout(form);
    layout->addWidget(m_allowNetwork);
    layout->addWidget(m_state);
    layout->addWidget(m_browserState);

    const SettingsStore& settings = m_app->settings();
    m_enabled->setChecked(settings.serverEnabled());
    m_port->setValue(settings.serverPort());
    m_browserPort->setValue(settings.browserPort());
    m_allowNetwork->setChecked(settings.serverAllowNetwork());

    connect(m_enabled, &QCheckBox::toggled, this, &ServerSection::apply);
    connect(m_port, &QSpinBox::valueChanged, this, &ServerSection::apply);
    connect(m_browserPort, &QSpinBox::valueChanged, this, &ServerSection::apply);
    connect(m_allowNetwork, &QCheckBox::toggled, this, &ServerSection::apply);
    connect(m_app, &App::serverStateChanged, this, &ServerSection::refresh);
    refresh();
}

void ServerSection::apply()
{
    SettingsStore& settings = m_app->settings();
    settings.setServerEnabled(m_enabled->isChecked());
    settings.setServerPort(m_port->value());
    settings.setBrowserPort(m_browserPort->value());
    settings.setServerAllowNetwork(m_allowNetwork->isChecked());
    m_app->applyServerSettings();
}

void ServerSection::refresh()
{
    const HostedServer* server = m_app->server();
    const bool enabled = m_app->settings().serverEnabled();
    m_port->setEnabled(enabled);
    m_browserPort->setEnabled(enabled);
    m_allowNetwork->setEnabled(enabled);
    if (server->isListening()) {
        const int clients = server->clientCount();
        showMessage(m_state,
                    uiText(clients == 1 ? "Dock.ListeningOne" : "Dock.ListeningMany")
                        .arg(server->serverPort())
                        .arg(clients),
                    false);
    } else if (enabled && !server->lastError().isEmpty()) {
        showMessage(m_state, server->lastError(), true);
    } else {
        showMessage(m_state, uiText("Dock.NotRunning"), false);
    }
    const HostedServer* browsers = m_app->browserServer();
    if (browsers->isListening())
        showMessage(m_browserState, uiText("Dock.BrowserAddress").arg(browsers->serverPort()),
                    false);
    else if (enabled && m_app->settings().browserPort() > 0)
        showMessage(m_browserState, browsers->lastError(), true);
    else
        showMessage(m_browserState, {}, false);
}

} // namespace vantorelle
