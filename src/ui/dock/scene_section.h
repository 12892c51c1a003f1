#pragma once

#include <QWidget>

class QLabel;
class QPushButton;

namespace vantorelle {

class SceneActions;
struct SceneActionResult;

// Adds the score text and the graphics source to the scene the user is working on.
class SceneSection : public QWidget
{
    Q_OBJECT

public:
    SceneSection(SceneActions* actions, QWidget* parent = nullptr);

private:
    void showResult(const SceneActionResult& result);

    SceneActions* m_actions;
    QPushButton* m_addGraphics = nullptr;
    QLabel* m_reason = nullptr;
    QLabel* m_result = nullptr;
};

} // namespace vantorelle
