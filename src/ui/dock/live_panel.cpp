#include "live_panel.h"

#include "app.h"
#include "panel_style.h"
#include "ui_text.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace vantorelle {

namespace {

enum Column
{
    NameColumn,
    ValueColumn,
    NoteColumn
};

void setText(QTreeWidgetItem* item, int column, const QString& text)
{
    if (item->text(column) != text)
        item->setText(column, text);
}

void setLabel(QLabel* label, const QString& text)
{
    if (label->text() != text)
        label->setText(text);
}

} // namespace

LivePanel::LivePanel(App* app, QWidget* parent) : QWidget(parent), m_app(app)
{
    QVBoxLayout* layout = sectionLayout(this, "livePanel", uiText("Live.Title"));
    m_age = wrappedLabel(QStringLiteral("liveAge"));
    m_age->setTextFormat(Qt::PlainText);
    layout->addWidget(m_age);

    m_table = new QTreeWidget;
    m_table->setObjectName(QStringLiteral("liveFields"));
    m_table->setColumnCount(3);
    m_table->setHeaderLabels({uiText("Live.Field"), uiText("Live.Value"), QString()});
    m_table->setRootIsDecorated(false);
    m_table->setUniformRowHeights(true);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    m_table->setMinimumHeight(120);
    layout->addWidget(m_table);

    m_name = new QLineEdit;
    m_name->setObjectName(QStringLiteral("fieldName"));
    m_name->setPlaceholderText(uiText("Live.FieldPlaceholder"));
    m_value = new QLineEdit;
    m_value->setObjectName(QStringLiteral("fieldValue"));
    m_value->setPlaceholderText(uiText("Live.Value"));
    m_value->setMaxLength(int(FieldOverlay::MaxValueChars));
    auto button = [](const char* name, const char* text, const char* tip) {
        auto* b = new QPushButton(uiText(text));
        b->setObjectName(QLatin1String(name));
        b->setToolTip(uiText(tip));
        return b;
    };
    m_set = button("setFieldButton", "Live.Set", "Live.SetTip");
    m_hold = button("holdButton", "Live.Hold", "Live.HoldTip");
    m_release = button("releaseButton", "Live.Release", "Live.ReleaseTip");
    m_releaseAll = button("releaseAllButton", "Live.ReleaseAll", "Live.ReleaseAllTip");
    m_remove = button("removeFieldButton", "Live.Remove", "Live.RemoveTip");
    auto* edits = new QGridLayout;
    edits->addWidget(m_name, 0, 0);
    edits->addWidget(m_value, 0, 1);
    edits->addWidget(m_set, 1, 0);
    edits->addWidget(m_hold, 1, 1);
    edits->addWidget(m_release, 2, 0);
    edits->addWidget(m_releaseAll, 2, 1);
    edits->addWidget(m_remove, 3, 0);
    layout->addLayout(edits);

    m_autoRelease = new QCheckBox(uiText("Live.AutoRelease"));
    m_autoRelease->setObjectName(QStringLiteral("autoReleaseBox"));
    m_autoRelease->setChecked(m_app->settings().releaseHoldsWhenLive());
    layout->addWidget(m_autoRelease);
    m_message = wrappedLabel(QStringLiteral("fieldsMessage"));
    m_message->setTextFormat(Qt::PlainText);
    m_message->hide();
    layout->addWidget(m_message);

    connect(m_set, &QPushButton::clicked, this, [this] { apply(false); });
    connect(m_hold, &QPushButton::clicked, this, [this] { apply(true); });
    connect(m_value, &QLineEdit::returnPressed, this, [this] { apply(true); });
    connect(m_release, &QPushButton::clicked, this, [this] {
        m_app->fields().release(selectedName());
        refreshTable();
    });
    connect(m_releaseAll, &QPushButton::clicked, this, [this] {
        m_app->fields().releaseAll();
        refreshTable();
    });
    connect(m_remove, &QPushButton::clicked, this, [this] {
        m_app->fields().removeField(selectedName());
        refreshTable();
    });
    connect(m_table, &QTreeWidget::itemSelectionChanged, this, &LivePanel::pick);
    connect(m_autoRelease, &QCheckBox::toggled, this,
            [this](bool on) { m_app->settings().setReleaseHoldsWhenLive(on); });
    // A route that goes stale or comes back shows at once, not at the next tick.
    connect(m_app->sourceManager(), &SourceManager::statusChanged, this, [this] {
        if (isVisible())
            refreshAge();
    });
    m_clock.setObjectName(QStringLiteral("liveClock"));
    connect(&m_clock, &QTimer::timeout, this, &LivePanel::refresh);
    m_clock.setInterval(TickMs);
    refresh();
}

void LivePanel::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    refresh();
    m_clock.start();
}

void LivePanel::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    m_clock.stop();
}

void LivePanel::refresh()
{
    refreshAge();
    refreshTable();
}

void LivePanel::refreshAge()
{
    const SourceManager* sources = m_app->sourceManager();
    const qint64 ageMs = sources->ageMs();
    const qint64 seconds = ageMs / 1000;
    QString text;
    if (sources->mode() == SourceManager::Mode::None)
        text = uiText("Live.NoDevice");
    else if (ageMs < 0)
        text = uiText("Live.NoDataYet");
    else if (sources->isStale())
        text = uiText("Live.Stale").arg(seconds);
    else if (seconds < 1)
        text = uiText("Live.JustNow");
    else
        text = uiText("Live.SecondsAgo").arg(seconds);
    setLabel(m_age, text);
    setMessageKind(m_age, sources->isStale() ? MessageKind::Warning : MessageKind::Plain);
}

void LivePanel::refreshTable()
{
    const FieldOverlay& fields = m_app->fields();
    const QMap<QString, QString> shown = fields.fields();
    const QMap<QString, QString> holds = fields.holds();
    const QMap<QString, QString> own = fields.operatorFields();
    const LiveData& device = m_app->live();
    // Rows stay as they are while the same fields are shown; only changed cells are set.
    if (m_table->topLevelItemCount() != shown.size()) {
        m_table->clear();
        for (auto it = shown.constBegin(); it != shown.constEnd(); ++it)
            m_table->addTopLevelItem(new QTreeWidgetItem(QStringList{it.key()}));
    }
    int row = 0;
    for (auto it = shown.constBegin(); it != shown.constEnd(); ++it, ++row) {
        QTreeWidgetItem* item = m_table->topLevelItem(row);
        setText(item, NameColumn, it.key());
        setText(item, ValueColumn, it.value());
        QString note;
        if (holds.contains(it.key())) {
            const QString underneath =
                own.contains(it.key()) ? own.value(it.key()) : device.value(it.key());
            note = uiText("Live.Held").arg(underneath);
        } else if (own.contains(it.key())) {
            note = uiText("Live.Yours");
        }
        setText(item, NoteColumn, note);
    }
    const QString selected = selectedName();
    m_release->setEnabled(holds.contains(selected));
    m_remove->setEnabled(own.contains(selected));
    m_releaseAll->setEnabled(!holds.isEmpty());
}

QString LivePanel::selectedName() const
{
    const QList<QTreeWidgetItem*> items = m_table->selectedItems();
    return items.isEmpty() ? QString() : items.first()->text(NameColumn);
}

void LivePanel::pick()
{
    const QString name = selectedName();
    if (!name.isEmpty()) {
        m_name->setText(name);
        m_value->setText(m_app->fields().value(name));
    }
    refreshTable();
}

void LivePanel::apply(bool hold)
{
    const QString name = m_name->text().trimmed();
    const QString value = m_value->text();
    FieldOverlay& fields = m_app->fields();
    const bool ok = hold ? fields.hold(name, value) : fields.setField(name, value);
    showMessage(m_message, ok ? QString() : uiText("Live.BadField").arg(FieldOverlay::MaxFields),
                !ok);
    refreshTable();
}

} // namespace vantorelle
