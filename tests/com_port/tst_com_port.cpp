// The serial path as Windows code: a simulated device behind a COM port, opened through the Win32
// backend. Under wine the device is a native simulator on a pseudo-terminal that the wine prefix
// maps onto the port (scripts/wine-test names it in VANTORELLE_TEST_COM_PORT).
#include "common/test_support.h"
#include "device_session.h"
#include "serial_port.h"
#include "usb_link.h"

#include <QSignalSpy>
#include <QTest>

using namespace vantorelle;

class TestComPort : public QObject
{
    Q_OBJECT

    QString m_port = test::externalPeers().comPort;

private Q_SLOTS:
    void initTestCase()
    {
        if (m_port.isEmpty())
            QSKIP("No simulated device behind a COM port (VANTORELLE_TEST_COM_PORT is not set)");
    }
    void listedBySetupApi()
    {
        QStringList names;
        for (const UsbPortInfo& port : listSerialPorts())
            names << port.port;
        if (!names.contains(m_port) && test::runningUnderWine())
            QSKIP(qPrintable("wine's SetupAPI lists no Ports-class device for a dosdevices link; "
                             "listed: " +
                             names.join(", ")));
        QVERIFY2(names.contains(m_port), qPrintable(names.join(", ")));
    }
    // Hello, live data and a signed-in admin session, all through the one port.
    void deviceAnswersOverThePort()
    {
        UsbLink link(m_port, UsbLinkSettings{50, 10000, 100});
        QSignalSpy opened(&link, &DeviceLink::opened);
        QSignalSpy failed(&link, &DeviceLink::failed);
        QSignalSpy envelopes(&link, &DeviceLink::envelope);
        DeviceSession session;
        session.setPassword("admin");
        session.start(&link);
        QTRY_VERIFY2(opened.count() == 1,
                     qPrintable(failed.isEmpty() ? "" : failed[0][1].toString()));
        const QJsonObject hello = opened[0][0].toJsonObject();
        QCOMPARE(hello["device_id"].toString(), "VT-0042");
        QCOMPARE(hello["fw_version"].toString(), "2.4.1");
        QTRY_COMPARE_WITH_TIMEOUT(session.state(), DeviceSession::State::Ready, 10000);
        QTRY_VERIFY(envelopes.count() >= 3);
        const QJsonObject fields = envelopes.last()[0].toJsonObject()["fields"].toObject();
        QVERIFY2(fields.contains("home_score") && fields.contains("away_score"),
                 qPrintable(QStringList(fields.keys()).join(',')));
        link.close();
    }
    // With polling an hour apart, only the port's wait for bytes can bring what the device sends,
    // again and again: its live data, then the answer to a ping.
    void bytesWakeTheRead()
    {
        SerialPort port(m_port);
        port.setPollInterval(3600000);
        QByteArray got;
        connect(&port, &SerialPort::readyRead, this,
                [&](const QByteArray& bytes) { got += bytes; });
        QString error;
        QVERIFY2(port.open(&error), qPrintable(error));
        QTRY_VERIFY(got.contains(QByteArray("\x00VT\x01", 4)));
        got.clear();
        QVERIFY(port.write(QByteArray("\x00VT\x03\x0c\x00{\"t\":\"ping\"}\xdc\x00", 20)));
        const QByteArray pong("\x00VT\x03\x0c\x00{\"t\":\"pong\"}\x59\xcd", 20);
        QTRY_VERIFY2(got.contains(pong), qPrintable(got.toHex()));
    }
    void oneOpenerAtATime()
    {
        const auto first = openComPort(m_port);
        QVERIFY(first);
        QString error;
        const auto second = openComPort(m_port, &error);
        if (second && test::runningUnderWine()) {
            serial::closePort(*second);
            serial::closePort(*first);
            QSKIP("wine lets a COM port opened without sharing be opened again");
        }
        QVERIFY(!second);
        QCOMPARE(error, "That USB port is in use by another program (close any serial monitor).");
        serial::closePort(*first);
        const auto again = openComPort(m_port);
        QVERIFY(again);
        serial::closePort(*again);
    }
    void missingPort()
    {
        QString error;
        QVERIFY(!openComPort("COM250", &error));
        QCOMPARE(error, "Could not open the USB port (error 2)."); // ERROR_FILE_NOT_FOUND
    }
};

QTEST_GUILESS_MAIN(TestComPort)
#include "tst_com_port.moc"
