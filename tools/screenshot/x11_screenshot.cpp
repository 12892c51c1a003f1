#include "x11_screenshot.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace vantorelle::tools {

QImage screenshotOfDisplay()
{
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return {};
    const Window root = DefaultRootWindow(display);
    XWindowAttributes attributes = {};
    XGetWindowAttributes(display, root, &attributes);
    XImage* shot = XGetImage(display, root, 0, 0, unsigned(attributes.width),
                             unsigned(attributes.height), AllPlanes, ZPixmap);
    QImage image;
    // A 24-bit display hands out 32-bit pixels in the byte order QImage calls RGB32.
    if (shot && shot->bits_per_pixel == 32)
        image = QImage(reinterpret_cast<const uchar*>(shot->data), shot->width, shot->height,
                       shot->bytes_per_line, QImage::Format_RGB32)
                    .copy();
    if (shot)
        XDestroyImage(shot);
    XCloseDisplay(display);
    return image;
}

} // namespace vantorelle::tools
