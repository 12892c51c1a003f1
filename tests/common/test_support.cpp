#include "test_support.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkInterface>
#include <QTcpServer>
#include <QTest>

#ifdef Q_OS_WIN
#include <aclapi.h>
#include <memory>
#include <sddl.h>
#include <windows.h>
#endif

namespace vantorelle::test {

bool LineClient::connectTo(const QString& host, quint16 port, int timeoutMs)
{
    m_socket->connectToHost(host, port);
    return m_socket->waitForConnected(timeoutMs);
}

void LineClient::send(const QByteArray& bytes)
{
    m_socket->write(bytes);
    m_socket->flush();
}

QByteArray LineClient::readLine(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (true) {
        m_pending.append(m_socket->readAll());
        const qsizetype end = m_pending.indexOf('\n');
        if (end >= 0) {
            const QByteArray line = m_pending.left(end);
            m_pending.remove(0, end + 1);
            return line;
        }
        if (deadline.hasExpired() || m_socket->state() != QAbstractSocket::ConnectedState)
            return {};
        // Keep the event loop turning: the server under test usually lives in this thread.
        QTest::qWait(5);
    }
}

QJsonObject LineClient::readObject(int timeoutMs)
{
    return QJsonDocument::fromJson(readLine(timeoutMs)).object();
}

bool LineClient::waitForClose(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (m_socket->state() != QAbstractSocket::UnconnectedState) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(5);
    }
    return true;
}

bool canConnect(const QString& host, quint16 port, int timeoutMs)
{
    QTcpSocket socket;
    socket.connectToHost(host, port);
    return socket.waitForConnected(timeoutMs);
}

QString nonLoopbackAddress()
{
    QString ipv6;
    for (const QHostAddress& address : QNetworkInterface::allAddresses()) {
        if (address.isLoopback() || address.isLinkLocal())
            continue;
        if (address.protocol() == QAbstractSocket::IPv4Protocol)
            return address.toString();
        if (ipv6.isEmpty() && address.protocol() == QAbstractSocket::IPv6Protocol)
            ipv6 = address.toString();
    }
    return ipv6;
}

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

ExternalPeers externalPeers()
{
    return {qEnvironmentVariable("VANTORELLE_TEST_COM_PORT"),
            quint16(qEnvironmentVariableIntValue("VANTORELLE_TEST_FEED_PORT")),
            qEnvironmentVariable("VANTORELLE_TEST_FEED_TOKEN"),
            qEnvironmentVariable("VANTORELLE_TEST_PORTAL")};
}

#ifdef Q_OS_WIN
QString accessList(const QString& file)
{
    const std::wstring path = QDir::toNativeSeparators(file).toStdWString();
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PACL list = nullptr;
    if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                              nullptr, &list, nullptr, &descriptor) != ERROR_SUCCESS)
        return {};
    LPWSTR text = nullptr;
    QString sddl;
    if (ConvertSecurityDescriptorToStringSecurityDescriptorW(
            descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr)) {
        sddl = QString::fromWCharArray(text);
        LocalFree(text);
    }
    LocalFree(descriptor);
    return sddl;
}

QString currentUserSid()
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return {};
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    auto user = std::make_unique<char[]>(size);
    LPWSTR sid = nullptr;
    QString text;
    if (GetTokenInformation(token, TokenUser, user.get(), size, &size) &&
        ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user.get())->User.Sid, &sid)) {
        text = QString::fromWCharArray(sid);
        LocalFree(sid);
    }
    CloseHandle(token);
    return text;
}

QStringList accessEntries(const QString& file)
{
    const QString sddl = accessList(file);
    QStringList entries = sddl.mid(sddl.indexOf('(')).split(')', Qt::SkipEmptyParts);
    entries.sort();
    return entries;
}
#endif

bool runningUnderWine()
{
#ifdef Q_OS_WIN
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    return ntdll && GetProcAddress(ntdll, "wine_get_version");
#else
    return false;
#endif
}

} // namespace vantorelle::test
