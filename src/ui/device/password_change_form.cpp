#include "password_change_form.h"

#include "ui_text.h"

#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantorelle {

QLineEdit* passwordField(const char* objectName, const QString& label)
{
    auto* edit = new QLineEdit;
    edit->setObjectName(QLatin1String(objectName));
    edit->setEchoMode(QLineEdit::Password);
    edit->setPlaceholderText(label);
    return edit;
}

PasswordChangeForm::PasswordChangeForm(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_current = passwordField("currentPasswordEdit", uiText("Device.Password.Current"));
    m_next = passwordField("newPasswordEdit", uiText("Device.Password.New"));
    m_confirm = passwordField("confirmPasswordEdit", uiText("Device.Password.Again"));
    m_button = new QPushButton(uiText("Device.Password.Change"));
    m_button->setObjectName(QStringLiteral("changePasswordButton"));
    for (QWidget* field : {m_current, m_next, m_confirm})
        layout->addWidget(field);
    layout->addWidget(m_button, 0, Qt::AlignLeft);
    connect(m_button, &QPushButton::clicked, this, &PasswordChangeForm::submitted);
    connect(m_confirm, &QLineEdit::returnPressed, this, &PasswordChangeForm::submitted);
}

QString PasswordChangeForm::current() const
{
    return m_current->text();
}

void PasswordChangeForm::setCurrent(const QString& password)
{
    m_current->setText(password);
}

QString PasswordChangeForm::next() const
{
    return m_next->text();
}

QString PasswordChangeForm::problem() const
{
    if (m_next->text().isEmpty())
        return uiText("Device.Password.EnterNew");
    if (m_next->text() != m_confirm->text())
        return uiText("Device.Password.Mismatch");
    return {};
}

void PasswordChangeForm::clear()
{
    for (QLineEdit* field : {m_current, m_next, m_confirm})
        field->clear();
}

} // namespace vantorelle
