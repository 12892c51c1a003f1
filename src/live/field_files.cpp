#include "field_files.h"

#include "atomic_file.h"

#include <QDir>
#include <QRegularExpression>

namespace vantorelle {

bool FieldFiles::hasFile(const QString& name)
{
    static const QRegularExpression plain(QStringLiteral("\\A[\\p{L}\\p{N}_-]{1,100}\\z"));
    static const QRegularExpression device(
        QStringLiteral("\\A(?:con|prn|aux|nul|com[1-9]|lpt[1-9])\\z"),
        QRegularExpression::CaseInsensitiveOption);
    return plain.match(name).hasMatch() && !device.match(name).hasMatch();
}

QString FieldFiles::pathOf(const QString& name) const
{
    return QDir(m_folder).filePath(name + QLatin1String(".txt"));
}

QStringList FieldFiles::update(const QMap<QString, QString>& fields)
{
    QStringList failures;
    auto write = [&](const QString& name, const QString& value) {
        const QString path = pathOf(name);
        if (saveFileAtomically(path, value.toUtf8()))
            m_written.insert(name, value);
        else
            failures.append(
                QStringLiteral("Could not write %1").arg(QDir::toNativeSeparators(path)));
    };
    for (auto it = fields.constBegin(); it != fields.constEnd(); ++it) {
        if (!hasFile(it.key()))
            continue;
        const auto written = m_written.constFind(it.key());
        if (written == m_written.constEnd() || *written != it.value())
            write(it.key(), it.value());
    }
    QStringList gone;
    for (auto it = m_written.constBegin(); it != m_written.constEnd(); ++it) {
        if (!it->isEmpty() && !fields.contains(it.key()))
            gone.append(it.key());
    }
    for (const QString& name : gone)
        write(name, QString());
    return failures;
}

} // namespace vantorelle
