#include "admin_panel.h"

#include "answer_lines.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace vantorelle {

AdminPanel::AdminPanel(DeviceSession* session, const char* objectName, const QString& title,
                       QWidget* parent)
    : QWidget(parent), m_session(session)
{
    m_body = sectionLayout(this, objectName, title);
    m_message = wrappedLabel(QStringLiteral("panelMessage"));
    m_message->setVisible(false);
    m_body->addWidget(m_message);
    if (m_session)
        connect(m_session, &DeviceSession::stateChanged, this,
                [this](DeviceSession::State state) { followState(state); });
    // Subclasses finish building first; a session that is already signed in is read then.
    QTimer::singleShot(0, this, [this] {
        updateActions();
        if (sessionReady())
            sessionBecameReady();
    });
}

QPushButton* AdminPanel::addAction(const QString& text, const char* objectName)
{
    auto* button = new QPushButton(text);
    button->setObjectName(QLatin1String(objectName));
    registerAction(button);
    return button;
}

void AdminPanel::registerAction(QPushButton* button)
{
    m_actions.append(button);
    button->setEnabled(sessionReady() && !m_busy);
}

QLabel* AdminPanel::addAnswerLabel(const QString& objectName)
{
    QLabel* label = wrappedLabel(objectName);
    label->setTextFormat(Qt::PlainText); // what the device says is never markup
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_body->addWidget(label);
    return label;
}

bool AdminPanel::sessionReady() const
{
    return m_session && m_session->state() == DeviceSession::State::Ready;
}

void AdminPanel::confirmThen(const QString& question, const QString& consequence,
                             const QString& action, std::function<void()> then)
{
    auto* box = new QMessageBox(QMessageBox::Warning, uiText("Device.ConfirmTitle"), question,
                                QMessageBox::Cancel, this);
    box->setObjectName(QStringLiteral("confirmation"));
    box->setTextFormat(Qt::PlainText);
    box->setInformativeText(consequence);
    QPushButton* go = box->addButton(action, QMessageBox::AcceptRole);
    box->setDefaultButton(QMessageBox::Cancel);
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::finished, this, [box, go, then = std::move(then)] {
        if (box->clickedButton() == go)
            then();
    });
    box->open();
}

void AdminPanel::ask(const QString& progress, const Operation& operation,
                     std::function<void(const RpcResult&)> then)
{
    if (!canStart())
        return;
    begin(progress);
    operation(*m_session, guarded(std::move(then)));
}

void AdminPanel::askAndShow(const QString& progress, const Operation& operation, QLabel* label)
{
    ask(progress, operation, [this, label](const RpcResult& result) {
        if (settle(result))
            label->setText(answerLines(result.result));
    });
}

void AdminPanel::begin(const QString& progress)
{
    m_busy = true;
    showMessage(m_message, progress, false);
    updateActions();
}

void AdminPanel::succeed(const QString& text)
{
    m_busy = false;
    showMessage(m_message, text, false);
    updateActions();
}

void AdminPanel::fail(const QString& sentence)
{
    m_busy = false;
    showMessage(m_message, sentence, true);
    updateActions();
}

bool AdminPanel::stillConnected()
{
    if (m_session)
        return true;
    fail(uiText("Device.ConnectionLost"));
    return false;
}

void AdminPanel::followState(DeviceSession::State state)
{
    updateActions();
    if (state == DeviceSession::State::Ready && !m_busy)
        sessionBecameReady();
}

void AdminPanel::updateActions()
{
    const bool usable = sessionReady() && !m_busy;
    for (QPushButton* button : std::as_const(m_actions))
        button->setEnabled(usable);
}

} // namespace vantorelle
