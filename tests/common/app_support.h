#pragma once

#include "core/app.h"

#include <QJsonObject>
#include <QString>

namespace vantorelle::test {

// An App environment in `dir` that talks to the portal at `portalUrl`: `settings` (with automatic
// update checks off) written as its settings file, its session file beside it, update checks and
// cloud polls far enough out that no case waits for them.
AppEnvironment testAppEnvironment(const QString& dir, const QString& portalUrl,
                                  QJsonObject settings = {});

} // namespace vantorelle::test
