#pragma once

#include <QString>

class QLabel;
class QVBoxLayout;
class QWidget;

namespace vantorelle {

// The one colour the dock sets itself: failures. Everything else follows the OBS theme.
inline constexpr const char* ErrorStyle = "color: #d9534f;";

// A word-wrapped label for a narrow dock column.
QLabel* wrappedLabel(const QString& objectName, QWidget* parent = nullptr);
// Shows `text` in `label`, red when it reports a failure; hides the label when `text` is empty.
void showMessage(QLabel* label, const QString& text, bool failure);
// Two widgets side by side, the first taking the room.
QWidget* row(QWidget* first, QWidget* second);
// A heading in bold, for a section or a group inside one.
QLabel* heading(const QString& text);
// Names `section` and gives it a borderless column layout that starts with its heading in bold.
QVBoxLayout* sectionLayout(QWidget* section, const char* objectName, const QString& title);

} // namespace vantorelle
