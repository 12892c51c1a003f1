#include "live_data_support.h"

#include <QJsonDocument>

namespace vantorelle::test {

QByteArray jsonText(const char* text)
{
    return QByteArray(text).replace('\'', '"');
}

QJsonObject jsonObject(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace vantorelle::test
