#pragma once

// Header only: the suites that include it link the widgets, the test kit itself does not.

#include "device_session.h"
#include "scripted_rpc_transport.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QJsonArray>
#include <QJsonDocument>
#include <QListWidget>
#include <QTest>
#include <QTimer>
#include <QTreeWidget>

#include <memory>

namespace vantorelle::test {

// Shrunk timings.
inline const DeviceSessionSettings FastSession{
    .pollIntervalMs = 50, .requestTimeoutMs = 3000, .verifyDelayMs = 10, .busyRetryDelayMs = 10};

// A device whose requests `transport` answers by method (see ScriptedRpcTransport), and a session
// signed in to it with "admin". Its link opens at once and sends nothing by itself.
struct ScriptedDevice : DeviceLink
{
    ScriptedDevice()
    {
        transport.answers.emplace();
        session->setPassword("admin");
        session->start(this);
        started =
            QTest::qWaitFor([this] { return session->state() == DeviceSession::State::Ready; });
    }
    QString kind() const override { return "usb"; }
    void open() override
    {
        QTimer::singleShot(0, this, [this] { Q_EMIT opened({}); });
    }
    void close() override {}
    RpcTransport* adminTransport() override { return &transport; }
    bool isRemote() const override { return false; }

    ScriptedRpcTransport transport;
    std::shared_ptr<DeviceSession> session = std::make_shared<DeviceSession>(FastSession);
    bool started = false;
};

// A table written as a JSON array of rows, each named by its first element, in a column "row".
inline void addRows(const char* json)
{
    QTest::addColumn<QJsonArray>("row");
    const QJsonArray rows = QJsonDocument::fromJson(json).array();
    QVERIFY(!rows.isEmpty());
    for (const QJsonValue& row : rows)
        QTest::newRow(qPrintable(row[0].toString())) << row.toArray();
}

template <typename T = QWidget> T* child(QObject* root, const QString& name)
{
    return root->findChild<T*>(name);
}

// What the named widget shows: nothing while hidden, a list's lines, a table's rows (cells
// joined by " | "), a box's current entry, else its text.
inline QString shown(QObject* root, const QString& name)
{
    auto* widget = child(root, name);
    if (!widget)
        return "(no " + name + ")";
    if (widget->isHidden())
        return {};
    if (auto* list = qobject_cast<QListWidget*>(widget)) {
        QStringList lines;
        for (int i = 0; i < list->count(); ++i)
            lines << list->item(i)->text();
        return lines.join('\n');
    }
    if (auto* tree = qobject_cast<QTreeWidget*>(widget)) {
        QStringList lines;
        for (int i = 0; i < tree->topLevelItemCount(); ++i) {
            QStringList cells;
            for (int column = 0; column < tree->columnCount(); ++column)
                cells << tree->topLevelItem(i)->text(column);
            lines << cells.join(" | ");
        }
        return lines.join('\n');
    }
    return widget->property(qobject_cast<QComboBox*>(widget) ? "currentText" : "text").toString();
}

// An administration panel's status line.
inline QString message(QObject* panel)
{
    return shown(panel, "panelMessage");
}

inline bool shownAsFailure(QObject* root, const QString& label = "panelMessage")
{
    return child(root, label)->property("themeID").toString() == "error";
}

// Types into fields, ticks boxes and picks list entries and table rows by their value, as a user
// would.
inline void fill(QObject* root, const QJsonObject& fields)
{
    for (auto it = fields.begin(); it != fields.end(); ++it) {
        auto* widget = child(root, it.key());
        QVERIFY2(widget, qPrintable(it.key()));
        if (auto* combo = qobject_cast<QComboBox*>(widget)) {
            const int index = combo->findData(it->isDouble() ? it->toInt() : it->toVariant());
            QVERIFY2(index >= 0, qPrintable(it.key()));
            combo->setCurrentIndex(index);
            Q_EMIT combo->activated(index);
        } else if (auto* tree = qobject_cast<QTreeWidget*>(widget)) {
            QTreeWidgetItem* row = nullptr;
            for (int i = 0; i < tree->topLevelItemCount() && !row; ++i) {
                if (tree->topLevelItem(i)->data(0, Qt::UserRole) == it->toVariant())
                    row = tree->topLevelItem(i);
            }
            QVERIFY2(row, qPrintable(it.key()));
            tree->setCurrentItem(row);
        } else {
            widget->setProperty(widget->inherits("QSpinBox")             ? "value"
                                : qobject_cast<QAbstractButton*>(widget) ? "checked"
                                                                         : "text",
                                it->toVariant());
        }
    }
}

inline void click(QObject* root, const QString& button)
{
    auto* b = child<QAbstractButton>(root, button);
    QVERIFY2(b && b->isEnabled(), qPrintable(button));
    b->click();
}

} // namespace vantorelle::test
