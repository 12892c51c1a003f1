#include "relay_panel.h"

#include "core/app.h"
#include "panel_style.h"

#include <QLabel>
#include <QVBoxLayout>

namespace vantorelle {

RelayPanel::RelayPanel(App* app, QWidget* parent) : QWidget(parent), m_app(app)
{
    auto* layout = sectionLayout(this, "relayPanel", QStringLiteral("USB relays"));
    m_lines = wrappedLabel(QStringLiteral("relayLines"));
    layout->addWidget(m_lines);
    connect(m_app, &App::usbRelaysChanged, this, &RelayPanel::refresh);
    refresh();
}

void RelayPanel::refresh()
{
    const QStringList lines = m_app->relayStatusLines();
    m_lines->setText(lines.join(QLatin1Char('\n')));
    setVisible(!lines.isEmpty());
}

} // namespace vantorelle
