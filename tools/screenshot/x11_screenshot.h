#pragma once

#include <QImage>
#include <QString>

namespace vantorelle::tools {

// What the X display named by DISPLAY shows, as a picture; a null image when there is none.
QImage screenshotOfDisplay();

// Asks the windows of process `pid` whose titles start with `titlePrefix` to close, as a window
// manager's close button does (a WM_DELETE_WINDOW message); the number of windows asked. Unlike a
// signal, this reaches the program through its event loop.
int requestWindowClose(qint64 pid, const QString& titlePrefix);

} // namespace vantorelle::tools
