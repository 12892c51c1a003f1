#include "common/pty_pair.h"
#include "common/test_support.h"
#include "serial_port.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using namespace vantorelle;
using vantorelle::test::PtyPair;

namespace {

// Whether the line turns other openers away. Root passes that, so the line is asked itself.
bool heldExclusively(const QString& path)
{
    const int fd = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return errno == EBUSY;
    int flag = 0;
    ioctl(fd, TIOCGEXCL, &flag);
    ::close(fd);
    return flag != 0;
}

// A USB device in a sysfs slice as the kernel lays it out: idVendor, idProduct, manufacturer
// and product (when given), and the tty `name` below `parent` in it, with its class entry.
void addUsbDevice(const QString& root, const QString& usb, const QList<QByteArray>& attributes,
                  const QString& parent = {}, const QString& name = {})
{
    const QString dir = root + "/devices/" + usb;
    const QStringList files{"idVendor", "idProduct", "manufacturer", "product"};
    QDir().mkpath(dir);
    for (qsizetype i = 0; i < attributes.size(); ++i) {
        if (!attributes[i].isEmpty())
            test::writeFile(dir + '/' + files[i], attributes[i] + '\n');
    }
    if (name.isEmpty())
        return;
    const QString tty = dir + '/' + parent + "/tty/" + name;
    QDir().mkpath(tty);
    QDir().mkpath(root + "/class/tty");
    QFile::link(dir + '/' + parent, tty + "/device");
    QFile::link(tty, root + "/class/tty/" + name);
}

} // namespace

class TestSerialPort : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void namesAndOpenFailures()
    {
        QCOMPARE(serial::win32DevicePath("COM3"), std::string("\\\\.\\COM3"));
        QCOMPARE(serial::win32DevicePath("\\\\.\\COM3"), std::string("\\\\.\\COM3"));
        QCOMPARE(serial::win32DevicePath("COM10"), std::string("\\\\.\\COM10"));
        QCOMPARE(serial::posixDevicePath("ttyACM0"), std::string("/dev/ttyACM0"));
        QCOMPARE(serial::posixDevicePath("/dev/ttyACM0"), std::string("/dev/ttyACM0"));
        QVERIFY(isLikelyVantorelle("USB\\VID_303A&PID_1001&REV_0101"));
        QVERIFY(isLikelyVantorelle("usb\\vid_303a&pid_1001"));
        QVERIFY(!isLikelyVantorelle("USB\\VID_303B&PID_1001"));
        QVERIFY(!isLikelyVantorelle("USB\\VID_10C4&PID_303A"));
        const QList<std::pair<QString, int>> cases{
            {"/dev/ttyACM-missing", 2}, {"ttyACM-missing", 2}, {QDir::tempPath(), 21}};
        for (const auto& [name, error] : cases) {
            QString text;
            QVERIFY(!openComPort(name, &text));
            QCOMPARE(text, QStringLiteral("Could not open the USB port (error %1).").arg(error));
        }
        QVERIFY(!openComPort("ttyACM-missing")); // no sentence wanted
    }
    void oneOpenerAtATime()
    {
        PtyPair device;
        auto first = std::make_unique<SerialPort>(device.portPath());
        QVERIFY(first->open());
        QVERIFY(first->open()); // reopening releases the held port first
        QVERIFY(heldExclusively(device.portPath()));
        SerialPort second(device.portPath());
        QString error;
        QVERIFY(!second.open(&error));
        QCOMPARE(error, "That USB port is in use by another program (close any serial monitor).");
        QVERIFY(!second.isOpen());
        first->close();
        first->close();
        QVERIFY2(second.open(&error), qPrintable(error));
        second.close();
        QVERIFY(first->open());
        first.reset(); // destruction releases the port
        QVERIFY(!heldExclusively(device.portPath()));
    }
    void rawLineBothWays()
    {
        PtyPair device;
        // Sent before the open, and echoed by the cooked line: the open purges it.
        QVERIFY(device.send("stale\n"));
        QVERIFY(device.waitForReceived(7));
        SerialPort port(device.portPath());
        port.setPollInterval(3600000); // bytes wake the read: no timer gets a turn
        QVERIFY(port.open());
        device.takeReceived();
        QByteArray got;
        qsizetype largestRead = 0;
        connect(&port, &SerialPort::readyRead, this, [&](const QByteArray& bytes) {
            got += bytes;
            largestRead = qMax(largestRead, bytes.size());
        });
        termios line = {};
        QCOMPARE(tcgetattr(device.masterFd(), &line), 0);
        QCOMPARE(cfgetospeed(&line), speed_t(B115200));
        QCOMPARE(cfgetispeed(&line), speed_t(B115200));
        QCOMPARE(line.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS | CLOCAL | CREAD),
                 tcflag_t(CS8 | CLOCAL | CREAD));
        QCOMPARE(line.c_iflag & (IXON | IXOFF | IXANY), tcflag_t(0));
        QCOMPARE(line.c_cc[VMIN], cc_t(1));
        QCOMPARE(line.c_cc[VTIME], cc_t(0));
        // Line endings, interrupt, XON/XOFF and NUL must all pass untouched.
        QByteArray toHost("\x00VT\r\n\x03\x11\x13\x7f\xff\x1a\x04", 13);
        for (int i = 0; i < 50000; ++i) // and a lot of it arrives in bounded reads
            toHost.append(char(i * 7));
        QVERIFY(device.send(toHost));
        QTRY_COMPARE(got, toHost);
        QVERIFY(largestRead <= 4096);
        const QByteArray toDevice("\x00VT\n\r\x11\x13\x03\xff", 10);
        QVERIFY(port.write(toDevice));
        QVERIFY(device.waitForReceived(toDevice.size()));
        QCOMPARE(device.takeReceived(), toDevice);
    }
    void stallIdleAndUnplug()
    {
        PtyPair device;
        SerialPort port(device.portPath());
        port.setWriteStallLimit(50);
        port.setPollInterval(3600000); // the hang-up wakes the read too
        QVERIFY(port.open());
        QVERIFY(port.write({}));
        QSignalSpy reads(&port, &SerialPort::readyRead);
        QSignalSpy errors(&port, &SerialPort::errorOccurred);
        // Nobody reads the device side while write() blocks, so the line fills and stalls.
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!port.write(QByteArray(4 << 20, 'x')));
        QVERIFY(clock.elapsed() < 2000); // the shorter limit was used
        QVERIFY(port.isOpen());
        QVERIFY(device.waitForReceived(1));
        device.takeReceived(); // the device catches up
        QVERIFY(port.write("after"));
        QTRY_VERIFY(device.received().endsWith("after"));
        port.pollRead(); // an idle port ends the tick quietly
        QCOMPARE(reads.count() + errors.count(), 0);
        device.unplug();
        QTRY_COMPARE(errors.count(), 1);
        QCOMPARE(errors.first().first(), "The USB device was unplugged or stopped responding.");
        QVERIFY(!port.isOpen());
        port.pollRead();
        QCOMPARE(errors.count(), 1);
        QVERIFY(!port.write("x"));
        QVERIFY(!port.write({}));
    }
    void listsUsbSerialPortsFromSysfs()
    {
        QTemporaryDir dir;
        const QString root = dir.path();
        const QString bus = "pci0000:00/0000:00:14.0/usb1";
        addUsbDevice(root, bus, {"1d6b", "0002"});
        addUsbDevice(root, bus + "/1-2",
                     {"303a", "1001", "Espressif", "USB JTAG/serial debug unit"}, "1-2:1.0",
                     "ttyACM0");
        addUsbDevice(root, bus + "/1-4", {"2e8a", "000a"}, "1-4:1.0", "ttyACM1");
        // A usb-serial converter: its tty hangs one level deeper. ttyUSB2 comes before ttyUSB10.
        addUsbDevice(root, bus + "/1-3",
                     {"10c4", "ea60", "", "CP2102 USB to UART Bridge Controller"},
                     "1-3:1.0/ttyUSB2", "ttyUSB2");
        addUsbDevice(root, bus + "/1-5", {"303B", "0001", "Maker"}, "1-5:1.0/ttyUSB10", "ttyUSB10");
        QDir().mkpath(root + "/class/tty/ttyS0"); // not USB serial ports: never listed
        QDir().mkpath(root + "/class/tty/tty0");
        QStringList ids;
        for (const serial::PortEntry& entry : serial::enumeratePorts(root.toStdString()))
            ids.append(QString::fromStdString(entry.hardwareId));
        QCOMPARE(ids, (QStringList{"USB\\VID_303A&PID_1001", "USB\\VID_2E8A&PID_000A",
                                   "USB\\VID_10C4&PID_EA60", "USB\\VID_303B&PID_0001"}));
        const QList<UsbPortInfo> expected{
            {"/dev/ttyACM0", "Espressif USB JTAG/serial debug unit (ttyACM0)", true},
            {"/dev/ttyACM1", "/dev/ttyACM1", false},
            {"/dev/ttyUSB2", "CP2102 USB to UART Bridge Controller (ttyUSB2)", false},
            {"/dev/ttyUSB10", "Maker (ttyUSB10)", false}};
        QCOMPARE(listSerialPorts(root), expected);
        QVERIFY(listSerialPorts(root + "/devices").isEmpty()); // no tty class there
        QVERIFY(listSerialPorts(root + "/absent").isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serial_port.moc"
