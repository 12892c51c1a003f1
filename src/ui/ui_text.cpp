#include "ui_text.h"

#include <QFile>
#include <QHash>

#include <atomic>

namespace vantorelle {

namespace {

std::atomic<TextLookup> g_lookup{nullptr};

// One `Key="text"` line of the locale file; inside the quotes \n is a line break and \" a quote.
QString unquote(QByteArray value)
{
    value = value.trimmed();
    if (value.size() >= 2 && value.startsWith('"') && value.endsWith('"'))
        value = value.mid(1, value.size() - 2);
    QByteArray out;
    out.reserve(value.size());
    for (qsizetype i = 0; i < value.size(); ++i) {
        const char c = value.at(i);
        if (c == '\\' && i + 1 < value.size()) {
            const char next = value.at(++i);
            out.append(next == 'n' ? '\n' : next);
        } else {
            out.append(c);
        }
    }
    return QString::fromUtf8(out);
}

const QHash<QByteArray, QString>& builtInTexts()
{
    static const QHash<QByteArray, QString> texts = [] {
        QHash<QByteArray, QString> table;
        QFile file(QStringLiteral(":/vantorelle/locale/en-US.ini"));
        if (!file.open(QIODevice::ReadOnly))
            return table;
        const QList<QByteArray> lines = file.readAll().split('\n');
        for (const QByteArray& line : lines) {
            const qsizetype equals = line.indexOf('=');
            if (equals <= 0 || line.startsWith('#') || line.startsWith(';'))
                continue;
            table.insert(line.left(equals).trimmed(), unquote(line.mid(equals + 1)));
        }
        return table;
    }();
    return texts;
}

} // namespace

QString uiText(const char* key)
{
    if (const TextLookup lookup = g_lookup.load())
        return QString::fromUtf8(lookup(key));
    return builtInTexts().value(QByteArray(key), QString::fromUtf8(key));
}

void setTextLookup(TextLookup lookup)
{
    g_lookup.store(lookup);
}

} // namespace vantorelle
