#include "relay_section.h"

#include "app.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QLabel>
#include <QVBoxLayout>

namespace vantorelle {

RelaySection::RelaySection(App* app, QWidget* parent) : QWidget(parent), m_app(app)
{
    auto* layout = sectionLayout(this, "relayPanel", uiText("Dock.Relays"));
    m_lines = wrappedLabel(QStringLiteral("relayLines"));
    layout->addWidget(m_lines);
    connect(m_app, &App::usbRelaysChanged, this, &RelaySection::refresh);
    refresh();
}

void RelaySection::refresh()
{
    const QStringList lines = m_app->relayStatusLines();
    m_lines->setText(lines.join(QLatin1Char('\n')));
    setVisible(!lines.isEmpty());
}

} // namespace vantorelle
