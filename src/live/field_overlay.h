#pragma once

#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QStringList>

namespace vantorelle {

class LiveData;

// What every output shows: the device's live data with the operator's own fields laid over it,
// and over those the fields the operator holds at a typed value (during an outage, say). The
// device's data stays as it arrives underneath, so releasing a hold shows it again. Safe to
// read from any thread; the operator's changes come from the UI thread.
class FieldOverlay : public QObject
{
    Q_OBJECT

public:
    // Caps on what the operator (or a settings file) may add.
    static constexpr qsizetype MaxFields = 100; // operator fields, and holds, each
    static constexpr qsizetype MaxValueChars = 1000;

    explicit FieldOverlay(LiveData* device, QObject* parent = nullptr);

    // A field name a template can name: letters, digits and "_", 1 to 64 of them.
    static bool isValidName(const QString& name);

    // The operator's own fields. False (and nothing changes) for an invalid name, a value over
    // the cap or one field too many.
    bool setField(const QString& name, const QString& value);
    void removeField(const QString& name);
    QMap<QString, QString> operatorFields() const;

    // Holds `name` at `value` whatever the device sends; same limits as setField.
    bool hold(const QString& name, const QString& value);
    void release(const QString& name);
    void releaseAll();
    QMap<QString, QString> holds() const;
    bool isHeld(const QString& name) const;

    // Replaces both maps at once (from the settings file); entries over the limits are dropped.
    void restore(const QMap<QString, QString>& fields, const QMap<QString, QString>& holds);

    // The merged view.
    QStringList fieldNames() const;
    QString value(const QString& name) const;
    QMap<QString, QString> fields() const;
    QString sport() const;
    QByteArray toJsonLine() const;

Q_SIGNALS:
    // What the outputs show changed: these names (none when everything may have), then
    // changed().
    void fieldsChanged(const QStringList& names);
    void changed();
    // The operator's fields or holds changed (they are worth saving).
    void operatorChanged();

private:
    static bool acceptable(const QMap<QString, QString>& map, const QString& name,
                           const QString& value);
    QMap<QString, QString> merge(QMap<QString, QString> device) const;
    // Recomputes the merged fields and signals what changed, if anything did.
    void refresh();
    bool edit(QMap<QString, QString>& map, const QString& name, const QString* value);

    LiveData* const m_device; // outlives the overlay
    mutable QMutex m_mutex;
    QMap<QString, QString> m_fields;
    QMap<QString, QString> m_holds;
    QMap<QString, QString> m_shown; // the merged fields and sport, as last signalled
    QString m_shownSport;
};

} // namespace vantorelle
