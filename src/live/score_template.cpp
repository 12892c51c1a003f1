#include "score_template.h"

#include "field_overlay.h"
#include "live_data.h"

#include <QRegularExpression>

namespace vantorelle {

namespace {

template <typename Fields> QString render(const QString& templateText, const Fields* live)
{
    static const QRegularExpression placeholder(QStringLiteral("\\{([A-Za-z0-9_]+)\\}"));

    QString out;
    out.reserve(templateText.size());
    qsizetype last = 0;
    QRegularExpressionMatchIterator it = placeholder.globalMatch(templateText);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        out.append(QStringView(templateText).mid(last, match.capturedStart() - last));
        if (live) {
            const QString name = match.captured(1);
            out.append(name == QLatin1String("sport") ? live->sport() : live->value(name));
        }
        last = match.capturedEnd();
    }
    out.append(QStringView(templateText).mid(last));
    return out;
}

} // namespace

QString renderScoreTemplate(const QString& templateText, const LiveData* live)
{
    return render(templateText, live);
}

QString renderScoreTemplate(const QString& templateText, const FieldOverlay* fields)
{
    return render(templateText, fields);
}

} // namespace vantorelle
