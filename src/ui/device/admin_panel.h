#pragma once

#include "device_session.h"

#include <QList>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <utility>

class QLabel;
class QPushButton;
class QVBoxLayout;

namespace vantorelle {

// Common ground of the device-administration panels: the session they drive (not owned), one
// request at a time, and the status line that shows a request's progress and, in red, why it
// failed. The actions are usable only while the session is signed in and nothing is running.
class AdminPanel : public QWidget
{
    Q_OBJECT

public:
    DeviceSession* session() const { return m_session; }
    bool isBusy() const { return m_busy; }

protected:
    AdminPanel(DeviceSession* session, const char* objectName, const QString& title,
               QWidget* parent);

    QVBoxLayout* body() const { return m_body; }
    QPushButton* addAction(const QString& text, const char* objectName);
    void registerAction(QPushButton* button);
    // A label below the last widget for what the device answers, selectable for copying.
    QLabel* addAnswerLabel(const QString& objectName);
    // True while requests can be sent: a session that is signed in.
    bool sessionReady() const;
    // True when a new request may start: signed in, and nothing else running.
    bool canStart() const { return sessionReady() && !m_busy; }

    // One of the session's operations, given the completion to call.
    using Operation = std::function<void(DeviceSession& session, DeviceSession::Done done)>;

    // Starts `operation` when a request may start, saying `progress` meanwhile; `then` gets the
    // answer unless this panel is gone by then.
    void ask(const QString& progress, const Operation& operation,
             std::function<void(const RpcResult&)> then);
    // The same for a question whose answer is shown as "key: value" lines in `label`.
    void askAndShow(const QString& progress, const Operation& operation, QLabel* label);

    // Asks before an action the audience would notice: `question`, what viewers will see
    // (`consequence`) and a button named `action`; `then` runs only when the user confirms.
    // The box is window-modal and does not block the event loop.
    void confirmThen(const QString& question, const QString& consequence, const QString& action,
                     std::function<void()> then);

    // A request starts: the actions wait and the status line says what is going on.
    void begin(const QString& progress);
    // The request ended well; `text` (may be empty) replaces any earlier failure.
    void succeed(const QString& text = {});
    // The request failed: its sentence in red.
    void fail(const QString& sentence);
    // Between the steps of a longer request: false (and the request failed) when the session is
    // gone.
    bool stillConnected();
    // Ends the request as its answer (from the device or the portal) says; true when it
    // succeeded.
    template <typename Result> bool settle(const Result& result, const QString& success = {})
    {
        if (result.ok)
            succeed(success);
        else
            fail(result.message);
        return result.ok;
    }

    // Wraps a completion so that an answer arriving after this panel was deleted is dropped.
    template <typename F> auto guarded(F&& f)
    {
        return [self = QPointer<AdminPanel>(this), f = std::forward<F>(f)](auto&&... args) {
            if (self)
                f(std::forward<decltype(args)>(args)...);
        };
    }

    // The session became signed in: panels that show the device's settings read them here.
    virtual void sessionBecameReady() {}

private:
    void followState(DeviceSession::State state);
    void updateActions();

    QPointer<DeviceSession> m_session;
    QVBoxLayout* m_body = nullptr;
    QLabel* m_message = nullptr;
    QList<QPushButton*> m_actions;
    bool m_busy = false;
};

} // namespace vantorelle
