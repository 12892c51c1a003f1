#include "panel_style.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QVBoxLayout>

namespace vantorelle {

QLabel* wrappedLabel(const QString& objectName, QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setObjectName(objectName);
    label->setWordWrap(true);
    return label;
}

void showMessage(QLabel* label, const QString& text, bool failure)
{
    label->setText(text);
    label->setStyleSheet(failure ? QString::fromLatin1(ErrorStyle) : QString());
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
