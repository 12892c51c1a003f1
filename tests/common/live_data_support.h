#pragma once

#include <QByteArray>
#include <QJsonObject>

namespace vantorelle::test {

// JSON written with single quotes where the text has double quotes, which keeps tables of
// envelopes and replies readable: jsonText("{'op':'get'}") is {"op":"get"}.
QByteArray jsonText(const char* text);

// `json` parsed as an object; an empty object when it is not one.
QJsonObject jsonObject(const QByteArray& json);

} // namespace vantorelle::test
