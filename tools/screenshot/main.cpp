// vantorelle-screenshot: saves what the X display shows to a PNG file (the demo's pictures of
// OBS running under Xvfb), or asks OBS's main window to close as its close button does.

#include "screenshot/x11_screenshot.h"

#include <QGuiApplication>
#include <QTextStream>

int main(int argc, char* argv[])
{
    if (argc == 3 && QByteArray(argv[1]) == "--close-obs") {
        bool ok = false;
        const qint64 pid = QByteArray(argv[2]).toLongLong(&ok);
        return ok && vantorelle::tools::requestWindowClose(pid, QStringLiteral("OBS ")) > 0 ? 0 : 1;
    }
    if (argc != 2 || QByteArray(argv[1]).startsWith('-')) {
        QTextStream(stderr) << "usage: vantorelle-screenshot OUT.png | --close-obs PID\n"
                               "Saves the X display named by DISPLAY to OUT.png, or asks the main "
                               "window of the OBS with process id PID to close.\n";
        return 2;
    }
    const QImage image = vantorelle::tools::screenshotOfDisplay();
    if (image.isNull() || !image.save(QString::fromLocal8Bit(argv[1]), "PNG")) {
        QTextStream(stderr) << "Could not take or save a picture of the display\n";
        return 1;
    }
    return 0;
}
