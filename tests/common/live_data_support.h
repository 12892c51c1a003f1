#pragma once

#include <QJsonDocument>
#include <QJsonObject>

namespace vantorelle::test {

// JSON written with single quotes where the text has double quotes, which keeps tables of
// envelopes and replies readable: jsonText("{'op':'get'}") is {"op":"get"}.
inline QByteArray jsonText(const char* text)
{
    return QByteArray(text).replace('\'', '"');
}

// `json` parsed as an object; an empty object when it is not one.
inline QJsonObject jsonObject(const QByteArray& json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace vantorelle::test
