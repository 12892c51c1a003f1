#pragma once

#include <QImage>

namespace vantorelle::tools {

// What the X display named by DISPLAY shows, as a picture; a null image when there is none.
QImage screenshotOfDisplay();

} // namespace vantorelle::tools
