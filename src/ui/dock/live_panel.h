#pragma once

#include <QTimer>
#include <QWidget>

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTreeWidget;

namespace vantorelle {

class App;

// What is on air, for the operator: every field with its value and whether the operator holds
// it or added it, how old the data is, and whether the route has gone stale. The operator adds
// fields of their own and holds any field at a typed value. Redrawn by a 10 Hz clock that runs
// only while the panel is shown; cells change only when their text does, so nothing flickers.
class LivePanel : public QWidget
{
    Q_OBJECT

public:
    static constexpr int TickMs = 100;

    explicit LivePanel(App* app, QWidget* parent = nullptr);

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void refresh();
    void refreshAge();
    void refreshTable();
    void pick();
    // Applies the name and value typed to the operator's fields (or a hold).
    void apply(bool hold);
    QString selectedName() const;

    App* m_app;
    QTimer m_clock{this};
    QLabel* m_age = nullptr;
    QTreeWidget* m_table = nullptr;
    QLineEdit* m_name = nullptr;
    QLineEdit* m_value = nullptr;
    QPushButton* m_set = nullptr;
    QPushButton* m_hold = nullptr;
    QPushButton* m_release = nullptr;
    QPushButton* m_releaseAll = nullptr;
    QPushButton* m_remove = nullptr;
    QCheckBox* m_autoRelease = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantorelle
