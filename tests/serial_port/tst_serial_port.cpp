#include "common/pty_pair.h"
#include "common/test_support.h"
#include "links/serial_port.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace vantorelle;
using vantorelle::test::PtyPair;

namespace {

const QString InUse =
    QStringLiteral("That USB port is in use by another program (close any serial monitor).");
const QString Unplugged = QStringLiteral("The USB device was unplugged or stopped responding.");

QByteArray joined(const QSignalSpy& spy)
{
    QByteArray all;
    for (const QList<QVariant>& args : spy)
        all += args.at(0).toByteArray();
    return all;
}

// What an unprivileged program gets when it opens `path`: 0 or its errno. Root passes TIOCEXCL,
// so when the tests run as root a child drops to "nobody" to see what everybody else sees.
int plainOpenError(const QString& path)
{
    const QByteArray name = path.toLocal8Bit();
    if (geteuid() != 0) {
        const int fd = ::open(name.constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        const int error = fd < 0 ? errno : 0;
        if (fd >= 0)
            ::close(fd);
        return error;
    }
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            _exit(255);
        const int fd = ::open(name.constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        _exit(fd < 0 ? errno : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A slice of sysfs: USB devices with their attributes and the tty class entries that lead to
// them, shaped as the kernel lays them out (links into /sys/devices, "device" up to the parent).
class FakeSysfs
{
public:
    QString root() const { return m_dir.path(); }

    // `usb` is the device's path under devices/; `attributes` go into its directory.
    void addUsbDevice(const QString& usb, const QMap<QString, QByteArray>& attributes)
    {
        QDir().mkpath(devicePath(usb));
        for (auto it = attributes.begin(); it != attributes.end(); ++it)
            test::writeFile(devicePath(usb) + QLatin1Char('/') + it.key(), it.value() + '\n');
    }

    // A tty whose parent device is `parent` (a path under devices/).
    void addTty(const QString& parent, const QString& name)
    {
        const QString tty = devicePath(parent) + QStringLiteral("/tty/") + name;
        QDir().mkpath(tty);
        QDir().mkpath(root() + QStringLiteral("/class/tty"));
        QFile::link(devicePath(parent), tty + QStringLiteral("/device"));
        QFile::link(tty, root() + QStringLiteral("/class/tty/") + name);
    }

private:
    QString devicePath(const QString& path) const { return root() + "/devices/" + path; }

    QTemporaryDir m_dir;
};

const QString Bus = QStringLiteral("pci0000:00/0000:00:14.0/usb1");

void buildSysfs(FakeSysfs& sys)
{
    sys.addUsbDevice(Bus, {{"idVendor", "1d6b"}, {"idProduct", "0002"}});
    sys.addUsbDevice(Bus + "/1-2", {{"idVendor", "303a"},
                                    {"idProduct", "1001"},
                                    {"manufacturer", "Espressif"},
                                    {"product", "USB JTAG/serial debug unit"}});
    sys.addTty(Bus + "/1-2/1-2:1.0", "ttyACM0");
    sys.addUsbDevice(Bus + "/1-4", {{"idVendor", "2e8a"}, {"idProduct", "000a"}});
    sys.addTty(Bus + "/1-4/1-4:1.0", "ttyACM1");
    // A usb-serial converter: the tty hangs below the converter's port, one level deeper.
    sys.addUsbDevice(Bus + "/1-3", {{"idVendor", "10c4"},
                                    {"idProduct", "ea60"},
                                    {"product", "CP2102 USB to UART Bridge Controller"}});
    sys.addTty(Bus + "/1-3/1-3:1.0/ttyUSB0", "ttyUSB0");
    // Behind a hub: the nearest device (the port's own), not the hub, names it.
    sys.addUsbDevice(Bus + "/1-1", {{"idVendor", "05e3"}, {"idProduct", "0610"}});
    sys.addUsbDevice(Bus + "/1-1/1-1.3", {{"idVendor", "303A"}, {"idProduct", "4001"}});
    sys.addTty(Bus + "/1-1/1-1.3/1-1.3:1.0/ttyUSB2", "ttyUSB2");
    sys.addUsbDevice(Bus + "/1-5",
                     {{"idVendor", "303b"}, {"idProduct", "0001"}, {"manufacturer", "Maker"}});
    sys.addTty(Bus + "/1-5/1-5:1.0/ttyUSB10", "ttyUSB10");
    // Not USB serial ports: never listed.
    sys.addTty("platform/serial8250", "ttyS0");
    sys.addTty("virtual", "tty0");
}

} // namespace

class TestSerialPort : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void devicePaths_data()
    {
        QTest::addColumn<bool>("windows");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("path");
        QTest::newRow("COM3") << true << "COM3"
                              << "\\\\.\\COM3";
        QTest::newRow("prefixed COM3") << true << "\\\\.\\COM3"
                                       << "\\\\.\\COM3";
        QTest::newRow("COM10") << true << "COM10"
                               << "\\\\.\\COM10";
        QTest::newRow("lower case") << true << "com3"
                                    << "\\\\.\\com3";
        QTest::newRow("bare tty") << false << "ttyACM0"
                                  << "/dev/ttyACM0";
        QTest::newRow("full path") << false << "/dev/ttyACM0"
                                   << "/dev/ttyACM0";
    }

    void devicePaths()
    {
        QFETCH(bool, windows);
        QFETCH(QString, name);
        QFETCH(QString, path);
        const std::string given = name.toStdString();
        QCOMPARE(QString::fromStdString(windows ? serial::win32DevicePath(given)
                                                : serial::posixDevicePath(given)),
                 path);
    }

    void likelyDevice_data()
    {
        QTest::addColumn<QString>("hardwareId");
        QTest::addColumn<bool>("likely");
        QTest::newRow("ours") << "USB\\VID_303A&PID_1001&REV_0101" << true;
        QTest::newRow("lower case") << "usb\\vid_303a&pid_1001" << true;
        QTest::newRow("neighbouring vendor") << "USB\\VID_303B&PID_1001" << false;
        QTest::newRow("303A as product") << "USB\\VID_10C4&PID_303A" << false;
    }

    void likelyDevice()
    {
        QFETCH(QString, hardwareId);
        QFETCH(bool, likely);
        QCOMPARE(isLikelyVantorelle(hardwareId), likely);
    }

    void openFailureNamesTheError_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("error");
        QTest::newRow("missing path") << "/dev/ttyACM-missing" << ENOENT;
        QTest::newRow("missing bare name") << "ttyACM-missing" << ENOENT;
        QTest::newRow("directory") << QDir::tempPath() << EISDIR;
    }

    void openFailureNamesTheError()
    {
        QFETCH(QString, name);
        QFETCH(int, error);
        QString text;
        QVERIFY(!openComPort(name, &text));
        QCOMPARE(text, QStringLiteral("Could not open the USB port (error %1).").arg(error));
        QVERIFY(!openComPort(name)); // no sentence wanted
    }

    void heldPortIsInUse()
    {
        PtyPair device;
        QVERIFY(device.isValid());
        SerialPort first(device.portPath());
        QVERIFY(first.open());
        QVERIFY(first.open()); // reopening releases the held port first

        SerialPort second(device.portPath());
        QString error;
        QVERIFY(!second.open(&error));
        QCOMPARE(error, InUse);
        QVERIFY(!second.isOpen());

        first.close();
        first.close();
        QVERIFY2(second.open(&error), qPrintable(error));
    }

    void exclusiveOpenShutsOutOtherOpeners()
    {
        PtyPair device;
        const QByteArray path = device.portPath().toLocal8Bit();
        QCOMPARE(::chmod(path.constData(), 0666), 0); // only the exclusive flag may refuse
        auto port = std::make_unique<SerialPort>(device.portPath());
        QVERIFY(port->open());
        QCOMPARE(plainOpenError(device.portPath()), EBUSY);
        // Root passes TIOCEXCL; the lock still turns away whoever asks for it.
        const int fd = ::open(path.constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        if (fd >= 0) {
            QCOMPARE(flock(fd, LOCK_EX | LOCK_NB), -1);
            ::close(fd);
        }
        port.reset(); // destruction releases the port
        QCOMPARE(plainOpenError(device.portPath()), 0);
    }

    void bytesPassUnchangedBothWays()
    {
        PtyPair device;
        SerialPort port(device.portPath());
        QVERIFY(port.open());
        QSignalSpy reads(&port, &SerialPort::readyRead);

        // Line endings, interrupt, XON/XOFF and NUL must all pass a raw line untouched.
        const QByteArray toHost("\x00VT\r\n\x03\x11\x13\x7f\xff\x1a\x04", 13);
        QVERIFY(device.send(toHost));
        QTRY_COMPARE_WITH_TIMEOUT(joined(reads), toHost, 5000);

        const QByteArray toDevice("\x00VT\n\r\x11\x13\x03\xff", 10);
        QVERIFY(port.write(toDevice));
        QVERIFY(device.waitForReceived(toDevice.size()));
        QCOMPARE(device.takeReceived(), toDevice);
    }

    void largeInputArrivesInBoundedReads()
    {
        PtyPair device;
        SerialPort port(device.portPath());
        QVERIFY(port.open());
        QSignalSpy reads(&port, &SerialPort::readyRead);

        QByteArray block;
        for (int i = 0; i < 50000; ++i)
            block.append(char(i * 7));
        QVERIFY(device.send(block));
        QTRY_COMPARE_WITH_TIMEOUT(joined(reads).size(), block.size(), 10000);
        QCOMPARE(joined(reads), block);
        for (const QList<QVariant>& args : reads)
            QVERIFY(args.at(0).toByteArray().size() <= SerialPort::ReadChunkBytes);
    }

    void idlePortEndsTheTick()
    {
        PtyPair device;
        SerialPort port(device.portPath());
        QVERIFY(port.open());
        QSignalSpy reads(&port, &SerialPort::readyRead);
        QSignalSpy errors(&port, &SerialPort::errorOccurred);
        port.pollRead();
        port.pollRead();
        QCOMPARE(reads.count(), 0);
        QCOMPARE(errors.count(), 0);
        QVERIFY(port.isOpen());
    }

    void unpluggedPortFailsOnce()
    {
        PtyPair device;
        SerialPort port(device.portPath());
        QVERIFY(port.open());
        QSignalSpy errors(&port, &SerialPort::errorOccurred);

        device.unplug();
        QTRY_COMPARE_WITH_TIMEOUT(errors.count(), 1, 5000);
        QCOMPARE(errors.at(0).at(0).toString(), Unplugged);
        QVERIFY(!port.isOpen());
        port.pollRead();
        QCOMPARE(errors.count(), 1);
        QVERIFY(!port.write("x"));
        QVERIFY(!port.write({}));
    }

    void stalledWriteFailsAndPortStaysOpen()
    {
        PtyPair device;
        SerialPort port(device.portPath());
        port.setWriteStallLimit(50);
        QVERIFY(port.open());
        QVERIFY(port.write({}));
        QVERIFY(device.takeReceived().isEmpty());

        // Nobody reads the device side while write() blocks, so the line fills and stalls.
        QElapsedTimer clock;
        clock.start();
        QVERIFY(!port.write(QByteArray(4 << 20, 'x')));
        QVERIFY(clock.elapsed() < serial::DefaultWriteStallMs); // the shorter limit was used
        QVERIFY(port.isOpen());

        QVERIFY(device.waitForReceived(1));
        device.takeReceived(); // the device catches up
        QVERIFY(port.write("after"));
        QTRY_VERIFY_WITH_TIMEOUT(device.received().endsWith("after"), 5000);
    }

    void sysfsPorts_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("port");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("hardwareId");
        QTest::addColumn<bool>("likely");
        QTest::newRow("ttyACM0") << 0 << "/dev/ttyACM0"
                                 << "Espressif USB JTAG/serial debug unit (ttyACM0)"
                                 << "USB\\VID_303A&PID_1001" << true;
        QTest::newRow("nameless") << 1 << "/dev/ttyACM1"
                                  << "/dev/ttyACM1"
                                  << "USB\\VID_2E8A&PID_000A" << false;
        QTest::newRow("converter") << 2 << "/dev/ttyUSB0"
                                   << "CP2102 USB to UART Bridge Controller (ttyUSB0)"
                                   << "USB\\VID_10C4&PID_EA60" << false;
        QTest::newRow("behind a hub") << 3 << "/dev/ttyUSB2"
                                      << "/dev/ttyUSB2"
                                      << "USB\\VID_303A&PID_4001" << true;
        QTest::newRow("ttyUSB10 after ttyUSB2") << 4 << "/dev/ttyUSB10"
                                                << "Maker (ttyUSB10)"
                                                << "USB\\VID_303B&PID_0001" << false;
    }

    void sysfsPorts()
    {
        QFETCH(int, index);
        QFETCH(QString, port);
        QFETCH(QString, description);
        QFETCH(QString, hardwareId);
        QFETCH(bool, likely);
        FakeSysfs sys;
        buildSysfs(sys);

        const auto entries = serial::enumeratePorts(sys.root().toStdString());
        QCOMPARE(entries.size(), 5u);
        QCOMPARE(QString::fromStdString(entries.at(index).hardwareId), hardwareId);
        const QList<UsbPortInfo> ports = listSerialPorts(sys.root());
        QCOMPARE(ports.size(), 5);
        QCOMPARE(ports.at(index), (UsbPortInfo{port, description, likely}));
    }

    void missingDeviceTreeListsNothing()
    {
        QTemporaryDir empty;
        QVERIFY(listSerialPorts(empty.path()).isEmpty());
        QVERIFY(listSerialPorts(empty.path() + "/absent").isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestSerialPort)
#include "tst_serial_port.moc"
