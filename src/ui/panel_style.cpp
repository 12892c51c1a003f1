#include "panel_style.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QStyle>
#include <QVBoxLayout>

namespace vantorelle {

QLabel* wrappedLabel(const QString& objectName, QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setObjectName(objectName);
    label->setWordWrap(true);
    return label;
}

namespace {

bool s_themedByHost = false;

struct KindNames
{
    MessageKind kind;
    const char* themeId;   // OBS 29 and 30
    const char* className; // later OBS themes
};

constexpr KindNames kKinds[] = {{MessageKind::Plain, "", ""},
                                {MessageKind::Good, "good", "text-success"},
                                {MessageKind::Warning, "warning", "text-warning"},
                                {MessageKind::Failure, "error", "text-danger"}};

} // namespace

void setThemedByHost(bool themed)
{
    s_themedByHost = themed;
}

void setMessageKind(QLabel* label, MessageKind kind)
{
    for (const KindNames& names : kKinds) {
        if (names.kind != kind)
            continue;
        if (label->property("themeID").toString() == QLatin1String(names.themeId))
            return;
        label->setProperty("themeID", QLatin1String(names.themeId));
        label->setProperty("class", QLatin1String(names.className));
    }
    label->setStyleSheet(!s_themedByHost && kind == MessageKind::Failure
                             ? QStringLiteral("color: #d9534f;")
                             : QString());
    // A changed property takes effect in the theme's style sheet only when restyled.
    label->style()->unpolish(label);
    label->style()->polish(label);
}

void showMessage(QLabel* label, const QString& text, bool failure)
{
    showMessage(label, text, failure ? MessageKind::Failure : MessageKind::Plain);
}

void showMessage(QLabel* label, const QString& text, MessageKind kind)
{
    label->setTextFormat(Qt::PlainText);
    label->setText(text);
    setMessageKind(label, kind);
    label->setVisible(!text.isEmpty());
}

QWidget* row(QWidget* first, QWidget* second)
{
    auto* widget = new QWidget;
    auto* layout = new QHBoxLayout(widget);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(first, 1);
    layout->addWidget(second);
    return widget;
}

QLabel* heading(const QString& text)
{
    return new QLabel(QStringLiteral("<b>%1</b>").arg(text.toHtmlEscaped()));
}

QVBoxLayout* sectionLayout(QWidget* section, const char* objectName, const QString& title)
{
    section->setObjectName(QLatin1String(objectName));
    auto* layout = new QVBoxLayout(section);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(heading(title));
    return layout;
}

} // namespace vantorelle
