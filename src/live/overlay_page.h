#pragma once

#include <QByteArray>
#include <QByteArrayView>

namespace vantorelle::http {

// The scorebug page a browser source shows: one self-contained HTML document (inline style and
// script, nothing fetched from anywhere) that follows /events on the server it came from and
// shows a score template over the live fields. The query string chooses the look:
//   template    placeholders "{name}" as in score templates (default "{home_score} - {away_score}")
//   font        font family names, comma separated (letters, digits, spaces, "-" and "_")
//   size        font size in pixels, 1 to 1000 (default 64)
//   color       text colour: "#rgb", "#rrggbb", "#rrggbbaa" (the "#" may be left out), a colour
//               name, or rgb()/rgba()/hsl()/hsla() (default #ffffff)
//   background  the same kinds of value, or "transparent" (the default)
//   weight      normal, bold or 100 to 900;  align  left, center or right
// A value that is not of its kind is replaced by the default, so nothing in the query string can
// reach the page's markup, style or script as anything but a checked value.
QByteArray overlayPage(QByteArrayView query);

} // namespace vantorelle::http
