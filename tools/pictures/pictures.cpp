// vantorelle-pictures: an OBS module that only takes the documentation's pictures (run by
// scripts/pictures). Loaded beside vantorelle-obs, it waits until OBS has finished loading, then
// uses the plug-in's windows as a user does, through widgets found by object name (clicks,
// typing, choices), and saves each state as a PNG in the folder VANTORELLE_PICTURES_DIR names.
// It links none of the plug-in's code, only Qt and OBS. When every step is done, or the overall
// limit has passed, it closes OBS's main window.
//
// The script tells it, by environment, what it cannot find out itself:
//   VANTORELLE_PICTURES_DIR       where the pictures go
//   VANTORELLE_PICTURES_FEED_PID  the simulator playing the device's local-network feed, paused
//                                 (SIGSTOP) for the stale state and resumed (SIGCONT) after it
//   VANTORELLE_PICTURES_PASSWORD  the admin password of the simulated Bluetooth device the setup
//                                 wizard signs in to

#include <obs-frontend-api.h>
#include <obs-module.h>

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDockWidget>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMainWindow>
#include <QPixmap>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QScreen>
#include <QScrollArea>
#include <QStackedWidget>
#include <QTabWidget>
#include <QTimer>
#include <QTreeWidget>

#include <algorithm>
#include <deque>
#include <functional>

#include <signal.h>

OBS_DECLARE_MODULE()

namespace {

constexpr int kPollMs = 100;
constexpr int kStepLimitMs = 45000;     // one state; a device or portal answers well within it
constexpr int kOverallLimitMs = 480000; // the whole run
constexpr int kDockWidth = 440;

void say(int level, const QString& text)
{
    blog(level, "[vantorelle-pictures] %s", text.toUtf8().constData());
}

// The visible widget of that name, else any; null when there is none.
QWidget* named(const QString& name)
{
    QWidget* any = nullptr;
    for (QWidget* widget : QApplication::allWidgets()) {
        if (widget->objectName() != name)
            continue;
        if (widget->isVisible())
            return widget;
        any = widget;
    }
    return any;
}

// A widget by name inside the widget `root` (several windows use the same names).
template <typename T = QWidget> T* in(const char* root, const char* name)
{
    QWidget* top = named(QLatin1String(root));
    return top ? top->findChild<T*>(QLatin1String(name)) : nullptr;
}

bool shown(const QWidget* widget)
{
    return widget && widget->isVisible();
}

bool click(QAbstractButton* button)
{
    if (!shown(button) || !button->isEnabled())
        return false;
    button->click();
    return true;
}

bool type(QLineEdit* edit, const QString& text)
{
    if (!edit)
        return false;
    edit->setText(text);
    return true;
}

// Chooses the entry with this text as a user does, which the combo box announces as activated.
bool choose(QComboBox* box, const QString& text)
{
    const int index = box ? box->findText(text) : -1;
    if (index < 0)
        return false;
    box->setCurrentIndex(index);
    Q_EMIT box->activated(index);
    return true;
}

QWidget* dockContents()
{
    return named(QStringLiteral("vantorelleDockContents"));
}

// OBS's dock around the plug-in's dock contents.
QDockWidget* dock()
{
    for (QWidget* w = dockContents(); w; w = w->parentWidget()) {
        if (auto* dockWidget = qobject_cast<QDockWidget*>(w))
            return dockWidget;
    }
    return nullptr;
}

QMainWindow* mainWindow()
{
    return static_cast<QMainWindow*>(obs_frontend_get_main_window());
}

template <typename T = QWidget> T* inDock(const char* name)
{
    return in<T>("vantorelleDockContents", name);
}

// The window around the visible widget of that name, for its picture.
std::function<QWidget*()> windowOf(const char* name)
{
    return [name]() -> QWidget* {
        QWidget* widget = named(QLatin1String(name));
        return shown(widget) ? widget->window() : nullptr;
    };
}

// The page a window shows now: the current one of its own page stack.
QWidget* currentPage(const char* window)
{
    QWidget* top = named(QLatin1String(window));
    auto* stack = shown(top)
                      ? top->findChild<QStackedWidget*>(QString(), Qt::FindDirectChildrenOnly)
                      : nullptr;
    return stack ? stack->currentWidget() : nullptr;
}

QString pageName(const char* window)
{
    QWidget* page = currentPage(window);
    return page ? page->objectName() : QString();
}

// "signInPage" is "sign-in", "wifiPanel" "wifi": the part of a picture's name after its number.
QString slugOf(const QString& objectName)
{
    static const QRegularExpression suffix(QStringLiteral("(Page|Panel)$"));
    static const QRegularExpression hump(QStringLiteral("([a-z0-9])([A-Z])"));
    QString slug = objectName;
    slug.remove(suffix);
    slug.replace(hump, QStringLiteral("\\1-\\2"));
    slug = slug.toLower();
    if (slug == QLatin1String("connection"))
        return QStringLiteral("connect");
    return slug.isEmpty() ? QStringLiteral("page") : slug;
}

// What a page shows as failed (a label in the theme's error style), empty when nothing.
QString pageFailure(QWidget* page)
{
    if (!page)
        return {};
    for (QLabel* label : page->findChildren<QLabel*>()) {
        if (label->isVisible() && label->property("themeID").toString() == QLatin1String("error"))
            return label->text();
    }
    return {};
}

QString wizardFailure()
{
    return pageFailure(currentPage("setupWizard"));
}

// Pages that read the device only when asked, what asks and what then fills: they are asked
// as a user would, so that their picture shows an answer.
struct Reading
{
    const char* page;
    const char* button;
    const char* filled;
};
constexpr Reading kReadings[] = {{"statusPanel", "refreshStatus", "statusLines"},
                                 {"wifiPanel", "scanWifi", "networkList"}};

const Reading* readingOf(const QWidget* page)
{
    for (const Reading& reading : kReadings) {
        if (page && page->objectName() == QLatin1String(reading.page))
            return &reading;
    }
    return nullptr;
}

// Asks a page that reads only on request; true once asked, or when it needs no asking.
bool ask(QWidget* page)
{
    const Reading* reading = readingOf(page);
    return !reading || click(page->findChild<QAbstractButton*>(QLatin1String(reading->button)));
}

// What a page asked for has come (the first network found is picked, as a user would).
bool answered(QWidget* page)
{
    const Reading* reading = readingOf(page);
    QObject* filled = reading ? page->findChild<QObject*>(QLatin1String(reading->filled)) : nullptr;
    if (auto* label = qobject_cast<QLabel*>(filled))
        return !label->text().isEmpty();
    if (auto* list = qobject_cast<QListWidget*>(filled)) {
        if (list->count() > 0 && !list->currentItem())
            list->setCurrentRow(0);
        return list->count() > 0;
    }
    return true;
}

// A page has what it reads from the device: no request running, which leaves its buttons
// disabled, and so at least one usable.
bool pageSettled(QWidget* page)
{
    if (!shown(page))
        return false;
    const QList<QPushButton*> buttons = page->findChildren<QPushButton*>();
    return buttons.isEmpty() || std::any_of(buttons.cbegin(), buttons.cend(), [](QPushButton* b) {
               return b->isVisible() && b->isEnabled();
           });
}

// What the dock's live panel shows.
int liveRows()
{
    auto* table = inDock<QTreeWidget>("liveFields");
    return table ? table->topLevelItemCount() : 0;
}

bool staleShown()
{
    auto* age = inDock<QLabel>("liveAge");
    return age && age->property("themeID").toString() == QLatin1String("warning");
}

bool liveShown()
{
    return shown(inDock("liveIndicator")) && liveRows() > 0;
}

// The device's local-network feed: paused for the stale state, resumed after it.
bool signalFeed(int signal)
{
    bool ok = false;
    const int pid = qEnvironmentVariable("VANTORELLE_PICTURES_FEED_PID").toInt(&ok);
    return ok && pid > 0 && ::kill(pid, signal) == 0;
}

// One state to reach: `act` is tried until it can do its part (its widgets are there), then
// `ready` is polled; once it holds, `subject` is saved as `picture` (none when empty).
struct Step
{
    QString what;
    std::function<bool()> act;
    std::function<bool()> ready;
    QString picture = {};
    std::function<QWidget*()> subject = {};
    // A sentence when the state can no longer be reached (what the window says went wrong).
    std::function<QString()> failure = {};
    int chain = 0; // a failed step skips the rest of its chain, which depends on it
};

std::function<bool()> clicks(const char* root, const char* name)
{
    return [root, name] { return click(in<QAbstractButton>(root, name)); };
}

class Photographer : public QObject
{
public:
    explicit Photographer(const QString& folder) : m_folder(folder)
    {
        m_timer.setInterval(kPollMs);
        connect(&m_timer, &QTimer::timeout, this, &Photographer::tick);
    }

    void start()
    {
        m_chain = 1;
        planDock();
        m_chain = 2;
        planDevices();
        m_overall.start();
        m_timer.start();
        say(LOG_INFO, QStringLiteral("taking pictures into %1").arg(m_folder));
    }

private:
    void add(Step step)
    {
        step.chain = m_chain;
        m_steps.push_back(std::move(step));
    }

    // Steps added while a step runs come right after it, in the order added, in its chain.
    void addNext(Step step)
    {
        step.chain = m_steps.front().chain;
        m_steps.insert(m_steps.begin() + qsizetype(++m_inserted), std::move(step));
    }

    void tick()
    {
        if (m_overall.elapsed() > kOverallLimitMs) {
            for (const Step& step : m_steps)
                say(LOG_ERROR, QStringLiteral("error: not reached (overall limit of %1 s): %2")
                                   .arg(kOverallLimitMs / 1000)
                                   .arg(step.what));
            return finish();
        }
        if (m_steps.empty())
            return finish();
        Step& step = m_steps.front();
        if (!m_stepTime.isValid())
            m_stepTime.start();
        m_inserted = 0;
        if (!m_acted)
            m_acted = !step.act || step.act();
        if (m_acted && (!step.ready || step.ready())) {
            if (!step.picture.isEmpty())
                save(step);
            return advance();
        }
        const QString failure = m_acted && step.failure ? step.failure() : QString();
        if (failure.isEmpty() && m_stepTime.elapsed() <= kStepLimitMs)
            return;
        const QString why = failure.isEmpty()
                                ? QStringLiteral("within %1 s").arg(kStepLimitMs / 1000)
                                : QStringLiteral("(%1)").arg(failure);
        say(LOG_ERROR,
            QStringLiteral("error: could not reach \"%1\" %2%3")
                .arg(step.what, why,
                     step.picture.isEmpty() ? QString() : QStringLiteral(", no ") + step.picture));
        const int chain = step.chain;
        advance();
        while (!m_steps.empty() && m_steps.front().chain == chain) {
            say(LOG_ERROR, QStringLiteral("error: skipped \"%1\"").arg(m_steps.front().what));
            m_steps.pop_front();
        }
    }

    void advance()
    {
        m_steps.pop_front();
        m_acted = false;
        m_stepTime.invalidate();
    }

    void save(const Step& step)
    {
        QWidget* subject = step.subject ? step.subject() : nullptr;
        if (!subject) {
            say(LOG_ERROR, QStringLiteral("error: nothing to take for %1").arg(step.picture));
            return;
        }
        // Layouts and style changes still posted take effect before the picture.
        QCoreApplication::sendPostedEvents();
        const QString path = QDir(m_folder).filePath(step.picture);
        if (subject->grab().save(path, "PNG"))
            say(LOG_INFO, QStringLiteral("picture %1: %2").arg(step.picture, step.what));
        else
            say(LOG_ERROR, QStringLiteral("error: could not write %1").arg(path));
    }

    void finish()
    {
        m_timer.stop();
        say(LOG_INFO, QStringLiteral("done; closing OBS"));
        if (QMainWindow* window = mainWindow())
            window->close();
    }

    // The dock, docked on the right at full height, wide enough for its sections.
    static bool arrangeDock()
    {
        QMainWindow* window = mainWindow();
        QDockWidget* dockWidget = dock();
        if (!window || !dockWidget || !window->isVisible())
            return false;
        dockWidget->setFloating(false);
        window->addDockWidget(Qt::RightDockWidgetArea, dockWidget);
        window->setCorner(Qt::TopRightCorner, Qt::RightDockWidgetArea);
        window->setCorner(Qt::BottomRightCorner, Qt::RightDockWidgetArea);
        window->showNormal();
        window->setGeometry(0, 0, 1500, 1000);
        dockWidget->show();
        window->resizeDocks({dockWidget}, {kDockWidth}, Qt::Horizontal);
        return true;
    }

    // Makes OBS's window as tall as the dock's sections need (within the screen), so that a
    // picture of the dock shows all of them; true once it is.
    static bool fitDock()
    {
        QMainWindow* window = mainWindow();
        auto* scroll = dockContents() ? dockContents()->findChild<QScrollArea*>() : nullptr;
        QWidget* sections = scroll ? scroll->widget() : nullptr;
        if (!window || !sections)
            return false;
        const int width = scroll->viewport()->width();
        const int needed = sections->hasHeightForWidth() ? sections->heightForWidth(width)
                                                         : sections->sizeHint().height();
        const int height = std::clamp(window->height() + needed - scroll->viewport()->height(),
                                      window->minimumSizeHint().height(),
                                      window->screen()->availableGeometry().height());
        if (height == window->height())
            return true;
        window->resize(window->width(), height);
        return false;
    }

    // A state of the dock, then its picture once the dock shows it whole.
    void addDockState(const QString& what, std::function<bool()> act,
                      const std::function<bool()>& ready, const QString& picture)
    {
        add({what, std::move(act), ready});
        add({what + QStringLiteral(", the dock fitted to it"),
             {},
             [ready] { return fitDock() && ready(); },
             picture,
             [] { return static_cast<QWidget*>(dock()); }});
    }

    void planDock()
    {
        add({"OBS with the dock arranged", arrangeDock,
             [] { return dock() && dock()->width() >= kDockWidth - 20; }});
        addDockState(
            "signed out", {}, [] { return shown(inDock("signIn")); }, "dock-signed-out.png");
        addDockState(
            "signed in to the demo account, its device live through the cloud",
            [] {
                return type(inDock<QLineEdit>("email"), QStringLiteral("demo@example.com")) &&
                       type(inDock<QLineEdit>("password"), QStringLiteral("demo")) &&
                       click(inDock<QAbstractButton>("signIn"));
            },
            [] { return shown(inDock("signOut")) && liveShown() && !staleShown(); },
            "dock-signed-in.png");
        addDockState(
            "live over the local network",
            [] {
                return choose(inDock<QComboBox>("routeChoice"), QStringLiteral("Local network"));
            },
            [] { return liveShown() && !staleShown(); }, "dock-live.png");
        addDockState(
            "a field held by the operator",
            [] {
                return type(inDock<QLineEdit>("fieldName"), QStringLiteral("home_name")) &&
                       type(inDock<QLineEdit>("fieldValue"), QStringLiteral("HAWKS")) &&
                       click(inDock<QAbstractButton>("holdButton"));
            },
            [] {
                auto* table = inDock<QTreeWidget>("liveFields");
                const QList<QTreeWidgetItem*> rows =
                    table ? table->findItems(QStringLiteral("home_name"), Qt::MatchExactly)
                          : QList<QTreeWidgetItem*>();
                if (rows.isEmpty() || rows.first()->text(2).isEmpty())
                    return false;
                // Picked in the table, as a user checking the hold would.
                table->setCurrentItem(rows.first());
                table->scrollToItem(rows.first());
                return true;
            },
            "dock-held.png");
        add({"holds released",
             [] {
                 if (!click(inDock<QAbstractButton>("releaseAllButton")))
                     return false;
                 inDock<QTreeWidget>("liveFields")->clearSelection();
                 return type(inDock<QLineEdit>("fieldName"), {}) &&
                        type(inDock<QLineEdit>("fieldValue"), {});
             },
             [] {
                 auto* release = inDock<QAbstractButton>("releaseAllButton");
                 return release && !release->isEnabled();
             }});
        addDockState(
            "the feed silent past the stale limit", [] { return signalFeed(SIGSTOP); },
            [] { return staleShown() && shown(inDock("liveIndicator")); }, "dock-stale.png");
        add({"the feed back", [] { return signalFeed(SIGCONT); },
             [] { return liveShown() && !staleShown(); }});
        addDockState(
            "an update offered", clicks("vantorelleDockContents", "checkUpdates"),
            [] {
                return shown(inDock("updateDetails")) &&
                       (shown(inDock("installUpdate")) || shown(inDock("downloadLink")));
            },
            "dock-update.png");
    }

    // The setup wizard with a device found over Bluetooth, page by page, then the device manager.
    // (A pseudo-terminal never shows in the wizard's list of USB ports, and over the network
    // the wireless link's page only says it needs USB or Bluetooth.)
    void planDevices()
    {
        add({"the devices window", clicks("vantorelleDockContents", "openDevices"),
             [] {
                 auto* table = in<QTreeWidget>("devicesWindow", "devicesTable");
                 auto* refresh = in<QAbstractButton>("devicesWindow", "refreshDevices");
                 return table && table->topLevelItemCount() > 0 && refresh && refresh->isEnabled();
             },
             "devices-window.png", windowOf("devicesWindow")});
        add({"the setup wizard", clicks("devicesWindow", "setupDevice"),
             [] { return pageName("setupWizard") == QLatin1String("connectionPage"); }});
        add({"a simulated device found over Bluetooth",
             [] {
                 return click(in<QAbstractButton>("setupWizard", "useBluetooth")) &&
                        click(in<QAbstractButton>("setupWizard", "scanBluetooth"));
             },
             [] {
                 auto* list = in<QListWidget>("setupWizard", "bluetoothList");
                 auto* scan = in<QAbstractButton>("setupWizard", "scanBluetooth");
                 return list && list->currentItem() && scan && scan->isEnabled();
             },
             "wizard-1-connect.png", windowOf("setupWizard"), wizardFailure});
        add({"the device asking for its password", clicks("setupWizard", "nextButton"),
             [] {
                 return pageName("setupWizard") == QLatin1String("signInPage") &&
                        shown(in("setupWizard", "passwordEdit")) &&
                        type(in<QLineEdit>("setupWizard", "passwordEdit"),
                             qEnvironmentVariable("VANTORELLE_PICTURES_PASSWORD"));
             },
             "wizard-2-sign-in.png", windowOf("setupWizard"), wizardFailure});
        add({"signed in to the device",
             clicks("setupWizard", "nextButton"),
             [] {
                 const QString page = pageName("setupWizard");
                 return !page.isEmpty() && page != QLatin1String("connectionPage") &&
                        page != QLatin1String("signInPage");
             },
             {},
             {},
             wizardFailure});
        add(wizardPage(3));
    }

    // The wizard's page now showing: its picture, then Next to the following one or, on the
    // last, Finish and the device manager.
    Step wizardPage(int number)
    {
        const auto act = [this, number] {
            QWidget* page = currentPage("setupWizard");
            if (!page)
                return false;
            addNext({QStringLiteral("wizard step %1 (%2) read from the device")
                         .arg(number)
                         .arg(page->objectName()),
                     [page] { return ask(page); },
                     [page] { return pageSettled(page) && answered(page); },
                     QStringLiteral("wizard-%1-%2.png").arg(number).arg(slugOf(page->objectName())),
                     windowOf("setupWizard"), [page] { return pageFailure(page); }});
            auto* finish = in<QAbstractButton>("setupWizard", "finishButton");
            if (!shown(finish) || !finish->isEnabled()) {
                const QPointer<QWidget> shownPage(page);
                addNext({QStringLiteral("Next from wizard step %1").arg(number),
                         clicks("setupWizard", "nextButton"),
                         [shownPage] { return currentPage("setupWizard") != shownPage; },
                         {},
                         {},
                         wizardFailure});
                addNext(wizardPage(number + 1));
                return true;
            }
            addNext({"the wizard finished, the device followed",
                     clicks("setupWizard", "finishButton"),
                     [] {
                         auto* manage = in<QAbstractButton>("devicesWindow", "manageConnected");
                         return !shown(named(QStringLiteral("setupWizard"))) && manage &&
                                manage->isEnabled();
                     },
                     {},
                     {},
                     wizardFailure});
            addNext({"the device manager", clicks("devicesWindow", "manageConnected"),
                     [] { return shown(named(QStringLiteral("deviceManager"))); }});
            addNext({"the device manager's tabs", [this] { return planTabs(); }, {}});
            return true;
        };
        return {QStringLiteral("wizard step %1").arg(number), act, {}};
    }

    // One picture per tab of the device manager, each once the tab has read the device.
    bool planTabs()
    {
        auto* tabs = in<QTabWidget>("deviceManager", "deviceManagerTabs");
        if (!tabs)
            return false;
        for (int i = 0; i < tabs->count(); ++i) {
            QWidget* page = tabs->widget(i);
            addNext({QStringLiteral("the device manager's tab %1 (%2)")
                         .arg(i + 1)
                         .arg(page->objectName()),
                     [tabs, i, page] {
                         tabs->setCurrentIndex(i);
                         return ask(page);
                     },
                     [page] { return pageSettled(page) && answered(page); },
                     QStringLiteral("device-%1.png").arg(slugOf(page->objectName())),
                     windowOf("deviceManager"), [page] { return pageFailure(page); }});
        }
        return true;
    }

    QString m_folder;
    QTimer m_timer;
    QElapsedTimer m_overall;
    QElapsedTimer m_stepTime;
    std::deque<Step> m_steps;
    int m_chain = 0; // of the steps being planned
    bool m_acted = false;
    size_t m_inserted = 0;
};

QPointer<Photographer> s_photographer;

void onFrontendEvent(enum obs_frontend_event event, void*)
{
    if (event != OBS_FRONTEND_EVENT_FINISHED_LOADING || s_photographer)
        return;
    const QString folder = qEnvironmentVariable("VANTORELLE_PICTURES_DIR");
    if (folder.isEmpty() || !QDir().mkpath(folder)) {
        say(LOG_ERROR, QStringLiteral("error: VANTORELLE_PICTURES_DIR names no usable folder"));
        if (QMainWindow* window = mainWindow())
            window->close();
        return;
    }
    s_photographer = new Photographer(folder);
    s_photographer->start();
}

} // namespace

bool obs_module_load(void)
{
    obs_frontend_add_event_callback(onFrontendEvent, nullptr);
    return true;
}

void obs_module_unload(void)
{
    obs_frontend_remove_event_callback(onFrontendEvent, nullptr);
    delete s_photographer;
}
