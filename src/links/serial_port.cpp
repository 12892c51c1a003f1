#include "serial_port.h"

#include <QPointer>

namespace vantorelle {

namespace {

QString openFailureText(const serial::OpenOutcome& outcome)
{
    if (outcome.inUse)
        return QStringLiteral(
            "That USB port is in use by another program (close any serial monitor).");
    return QStringLiteral("Could not open the USB port (error %1).").arg(outcome.error);
}

QString fromUtf8(const std::string& text)
{
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

UsbPortInfo toPortInfo(const serial::PortEntry& entry)
{
    const QString port = fromUtf8(entry.port);
    const QString friendly = fromUtf8(entry.friendlyName);
    return {port, friendly.isEmpty() ? port : friendly,
            isLikelyVantorelle(fromUtf8(entry.hardwareId))};
}

} // namespace

std::optional<serial::NativeHandle> openComPort(const QString& name, QString* errorText,
                                                int writeStallMs)
{
    const serial::OpenOutcome outcome = serial::openPort(name.toStdString(), writeStallMs);
    if (outcome.ok)
        return outcome.handle;
    if (errorText)
        *errorText = openFailureText(outcome);
    return std::nullopt;
}

QList<UsbPortInfo> listSerialPorts(const QString& systemRoot)
{
    QList<UsbPortInfo> ports;
    for (const serial::PortEntry& entry : serial::enumeratePorts(systemRoot.toStdString()))
        ports.append(toPortInfo(entry));
    return ports;
}

bool isLikelyVantorelle(const QString& hardwareId)
{
    return hardwareId.contains(QLatin1String("VID_303A"), Qt::CaseInsensitive);
}

SerialPort::SerialPort(const QString& portName, QObject* parent)
    : QObject(parent), m_portName(portName)
{
    connect(&m_timer, &QTimer::timeout, this, &SerialPort::pollRead);
}

SerialPort::~SerialPort()
{
    close();
}

bool SerialPort::open(QString* errorText)
{
    close();
    m_handle = openComPort(m_portName, errorText, m_writeStallMs);
    if (!m_handle)
        return false;
#ifdef Q_OS_WIN
    if (const serial::NativeHandle event = serial::readWakeEvent(*m_handle)) {
        m_notifier = new QWinEventNotifier(reinterpret_cast<Qt::HANDLE>(event), this);
        connect(m_notifier, &QWinEventNotifier::activated, this, &SerialPort::pollRead);
    }
#else
    m_notifier = new QSocketNotifier(qintptr(*m_handle), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SerialPort::pollRead);
#endif
    m_timer.start(m_pollIntervalMs);
    return true;
}

void SerialPort::close()
{
    m_timer.stop();
    if (m_notifier) {
        // Closing may happen inside the notifier's own signal (a reader closes the port): it
        // goes once that signal has returned, and hears nothing of the port meanwhile.
        m_notifier->setEnabled(false);
        std::exchange(m_notifier, nullptr)->deleteLater();
    }
    if (m_handle)
        serial::closePort(*std::exchange(m_handle, std::nullopt));
}

bool SerialPort::write(const QByteArray& bytes)
{
    if (!m_handle)
        return false;
    qsizetype offset = 0;
    while (offset < bytes.size()) {
        const std::ptrdiff_t written =
            serial::writePort(*m_handle, bytes.constData() + offset,
                              std::size_t(bytes.size() - offset), m_writeStallMs);
        if (written <= 0)
            return false;
        offset += written;
    }
    return true;
}

void SerialPort::pollRead()
{
    // A receiver may close or even delete this port from inside readyRead.
    QPointer<SerialPort> alive(this);
    char buffer[ReadChunkBytes];
    for (int i = 0; i < ReadsPerTick && alive && m_handle; ++i) {
        std::size_t count = 0;
        const serial::ReadStatus status =
            serial::readPort(*m_handle, buffer, sizeof buffer, &count);
        if (status == serial::ReadStatus::Idle)
            break;
        if (status == serial::ReadStatus::Failed)
            return fail();
        Q_EMIT readyRead(QByteArray(buffer, qsizetype(count)));
    }
#ifdef Q_OS_WIN
    if (alive && m_handle && m_notifier)
        armReadWake();
#endif
}

#ifdef Q_OS_WIN
void SerialPort::armReadWake()
{
    switch (serial::armReadWake(*m_handle)) {
    case serial::WakeStatus::Armed:
        break;
    case serial::WakeStatus::Ready:
        // More than one tick's worth, or bytes the wait will not report: the next tick reads them.
        QMetaObject::invokeMethod(this, &SerialPort::pollRead, Qt::QueuedConnection);
        break;
    case serial::WakeStatus::Failed:
        fail();
        break;
    }
}
#endif

void SerialPort::fail()
{
    close();
    Q_EMIT errorOccurred(QStringLiteral("The USB device was unplugged or stopped responding."));
}

} // namespace vantorelle
