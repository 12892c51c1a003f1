#include "answer_lines.h"

#include "live_data.h"

#include <QStringList>

namespace vantorelle {

QString answerLines(const QJsonObject& answer)
{
    QStringList lines;
    for (auto it = answer.begin(); it != answer.end(); ++it) {
        if (it->isObject() || it->isArray())
            continue;
        lines.append(QStringLiteral("%1: %2").arg(it.key(), LiveData::valueText(*it)));
    }
    return lines.join(QLatin1Char('\n'));
}

} // namespace vantorelle
