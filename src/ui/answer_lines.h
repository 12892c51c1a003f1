#pragma once

#include <QJsonObject>
#include <QString>

namespace vantorelle {

// An answer from a device or the portal as the user reads it: one "key: value" line per plain
// member, in key order. Nested objects and arrays are left out; empty when nothing is left.
QString answerLines(const QJsonObject& answer);

} // namespace vantorelle
