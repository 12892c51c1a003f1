#pragma once

#include <QString>
#include <QWidget>

class QLineEdit;
class QPushButton;

namespace vantorelle {

// The device's admin password, current and new (typed twice), with the button that changes it.
class PasswordChangeForm : public QWidget
{
    Q_OBJECT

public:
    explicit PasswordChangeForm(QWidget* parent = nullptr);

    QString current() const;
    void setCurrent(const QString& password);
    QString next() const;
    QPushButton* button() const { return m_button; }
    // Why the typed passwords cannot be sent; empty when they can.
    QString problem() const;
    void clear();

Q_SIGNALS:
    void submitted();

private:
    QLineEdit* m_current = nullptr;
    QLineEdit* m_next = nullptr;
    QLineEdit* m_confirm = nullptr;
    QPushButton* m_button = nullptr;
};

// A line edit that hides what is typed, with `label` as its placeholder.
QLineEdit* passwordField(const char* objectName, const QString& label);

} // namespace vantorelle
