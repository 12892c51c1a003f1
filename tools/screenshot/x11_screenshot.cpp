#include "x11_screenshot.h"

#include <X11/Xatom.h>
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

namespace {

// The window's _NET_WM_PID, or -1.
long windowPid(Display* display, Window window, Atom pidAtom)
{
    Atom type = 0;
    int format = 0;
    unsigned long items = 0, after = 0;
    unsigned char* data = nullptr;
    long pid = -1;
    if (XGetWindowProperty(display, window, pidAtom, 0, 1, False, XA_CARDINAL, &type, &format,
                           &items, &after, &data) == Success &&
        data && format == 32 && items == 1)
        pid = long(*reinterpret_cast<unsigned long*>(data));
    if (data)
        XFree(data);
    return pid;
}

QString windowTitle(Display* display, Window window)
{
    char* name = nullptr;
    QString title;
    if (XFetchName(display, window, &name) && name)
        title = QString::fromLocal8Bit(name);
    if (name)
        XFree(name);
    return title;
}

} // namespace

int requestWindowClose(qint64 pid, const QString& titlePrefix)
{
    Display* display = XOpenDisplay(nullptr);
    if (!display)
        return 0;
    const Atom pidAtom = XInternAtom(display, "_NET_WM_PID", False);
    const Atom protocols = XInternAtom(display, "WM_PROTOCOLS", False);
    const Atom deleteWindow = XInternAtom(display, "WM_DELETE_WINDOW", False);
    Window root = 0, parent = 0;
    Window* children = nullptr;
    unsigned count = 0;
    int asked = 0;
    // Without a window manager the top-level windows are the root's children.
    if (XQueryTree(display, DefaultRootWindow(display), &root, &parent, &children, &count)) {
        for (unsigned i = 0; i < count; ++i) {
            const Window window = children[i];
            if (windowPid(display, window, pidAtom) != pid ||
                !windowTitle(display, window).startsWith(titlePrefix))
                continue;
            XEvent event = {};
            event.xclient.type = ClientMessage;
            event.xclient.window = window;
            event.xclient.message_type = protocols;
            event.xclient.format = 32;
            event.xclient.data.l[0] = long(deleteWindow);
            event.xclient.data.l[1] = CurrentTime;
            XSendEvent(display, window, False, NoEventMask, &event);
            ++asked;
        }
        if (children)
            XFree(children);
    }
    XCloseDisplay(display);
    return asked;
}

} // namespace vantorelle::tools
