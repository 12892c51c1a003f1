#include "scene_section.h"

#include "panel_style.h"
#include "scene_actions.h"
#include "ui_text.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

SceneSection::SceneSection(SceneActions* actions, QWidget* parent)
    : QWidget(parent), m_actions(actions)
{
    auto* layout = sectionLayout(this, "scenePanel", uiText("Dock.Scene"));
    auto* addText = new QPushButton(uiText("Dock.AddScoreText"));
    addText->setObjectName(QStringLiteral("addScoreText"));
    m_addGraphics = new QPushButton(uiText("Dock.AddGraphics"));
    m_addGraphics->setObjectName(QStringLiteral("addGraphics"));
    m_reason = wrappedLabel(QStringLiteral("graphicsUnavailable"));
    m_result = wrappedLabel(QStringLiteral("sceneResult"));
    layout->addWidget(addText);
    layout->addWidget(m_addGraphics);
    layout->addWidget(m_reason);
    layout->addWidget(m_result);
    showMessage(m_result, {}, false);

    QString reason;
    const bool graphics = m_actions->canAddGraphics(&reason);
    m_addGraphics->setEnabled(graphics);
    showMessage(m_reason, graphics ? QString() : reason, false);

    connect(addText, &QPushButton::clicked, this,
            [this] { showResult(m_actions->addScoreText()); });
    connect(m_addGraphics, &QPushButton::clicked, this,
            [this] { showResult(m_actions->addGraphics()); });
}

void SceneSection::showResult(const SceneActionResult& result)
{
    showMessage(m_result, result.message, !result.ok);
}

} // namespace vantorelle
