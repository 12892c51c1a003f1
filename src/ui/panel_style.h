#pragma once

#include <QString>

class QLabel;
class QVBoxLayout;
class QWidget;

namespace vantorelle {

// What a message says, for its colour: OBS's themes colour labels marked as warnings, errors
// or good news (the "themeID" property of OBS 29 and 30, the "class" of later versions).
enum class MessageKind
{
    Plain,
    Good,
    Warning,
    Failure
};

// Inside OBS the theme colours marked labels; elsewhere (tests, tools) a failure is drawn in
// the one colour of our own, "color: #d9534f;". The module says at load that OBS is the host.
void setThemedByHost(bool themed);
// Marks `label` as a message of `kind` and restyles it.
void setMessageKind(QLabel* label, MessageKind kind);

// A word-wrapped label for a narrow dock column.
QLabel* wrappedLabel(const QString& objectName, QWidget* parent = nullptr);
// Shows `text` in `label` as plain text, marked as a failure or as plain; hides the label when
// `text` is empty.
void showMessage(QLabel* label, const QString& text, bool failure);
void showMessage(QLabel* label, const QString& text, MessageKind kind);
// Two widgets side by side, the first taking the room.
QWidget* row(QWidget* first, QWidget* second);
// A heading in bold, for a section or a group inside one.
QLabel* heading(const QString& text);
// Names `section` and gives it a borderless column layout that starts with its heading in bold.
QVBoxLayout* sectionLayout(QWidget* section, const char* objectName, const QString& title);

} // namespace vantorelle
