// vantorelle-screenshot: saves what the X display shows to a PNG file (the demo's pictures of
// OBS running under Xvfb).

#include "screenshot/x11_screenshot.h"

#include <QGuiApplication>
#include <QTextStream>

int main(int argc, char* argv[])
{
    if (argc != 2 || QByteArray(argv[1]).startsWith('-')) {
        QTextStream(stderr) << "usage: vantorelle-screenshot OUT.png\n"
                               "Saves the X display named by DISPLAY to OUT.png.\n";
        return 2;
    }
    const QImage image = vantorelle::tools::screenshotOfDisplay();
    if (image.isNull() || !image.save(QString::fromLocal8Bit(argv[1]), "PNG")) {
        QTextStream(stderr) << "Could not take or save a picture of the display\n";
        return 1;
    }
    return 0;
}
