#pragma once

#include <QString>

namespace vantorelle {

class FieldOverlay;
class LiveData;

// Replaces every "{name}" (letters, digits and underscores) in a score template with the live
// value of that field; "{sport}" is the live sport. Unknown names become empty. With no model
// every placeholder becomes empty. Inserted values are not scanned again.
QString renderScoreTemplate(const QString& templateText, const LiveData* live);
// The same over what outputs show.
QString renderScoreTemplate(const QString& templateText, const FieldOverlay* fields);

// The default template of a new score text.
inline constexpr const char* DefaultScoreTemplate = "{home_score} - {away_score}";

} // namespace vantorelle
