#include "log.h"

#include <QDebug>
#include <QMutex>

namespace vantorelle {

namespace {

QMutex s_mutex;
LogSink s_sink;

} // namespace

void setLogSink(LogSink sink)
{
    const QMutexLocker lock(&s_mutex);
    s_sink = std::move(sink);
}

void logLine(LogLevel level, const QString& line)
{
    LogSink sink;
    {
        const QMutexLocker lock(&s_mutex);
        sink = s_sink;
    }
    if (sink)
        return sink(level, line);
    switch (level) {
    case LogLevel::Error:
        qCritical().noquote() << line;
        break;
    case LogLevel::Warning:
        qWarning().noquote() << line;
        break;
    case LogLevel::Info:
        qInfo().noquote() << line;
        break;
    case LogLevel::Debug:
        qDebug().noquote() << line;
        break;
    }
}

} // namespace vantorelle
