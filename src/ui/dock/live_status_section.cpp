#include "live_status_section.h"

#include "panel_style.h"
#include "source_manager.h"
#include "ui_text.h"

#include <QHBoxLayout>
#include <QLabel>

namespace vantorelle {

LiveStatusSection::LiveStatusSection(SourceManager* sources, QWidget* parent)
    : QWidget(parent), m_sources(sources)
{
    setObjectName(QStringLiteral("liveStatusPanel"));
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_indicator = new QLabel(uiText("Live.Live"));
    m_indicator->setObjectName(QStringLiteral("liveIndicator"));
    m_indicator->setTextFormat(Qt::PlainText);
    QFont bold = m_indicator->font();
    bold.setBold(true);
    m_indicator->setFont(bold);
    m_status = wrappedLabel(QStringLiteral("liveStatus"));
    layout->addWidget(m_indicator, 0, Qt::AlignTop);
    layout->addWidget(m_status, 1);
    connect(m_sources, &SourceManager::statusChanged, this, &LiveStatusSection::refresh);
    refresh();
}

void LiveStatusSection::refresh()
{
    const QString status = m_sources->status();
    m_status->setText(status.isEmpty() ? uiText("Live.ChooseDevice") : status);
    // A live route that has gone quiet shows how quiet instead of claiming to be live.
    m_indicator->setText(m_sources->isStale() ? uiText("Live.StaleMark") : uiText("Live.Live"));
    m_indicator->setVisible(m_sources->isLive());
}

} // namespace vantorelle
