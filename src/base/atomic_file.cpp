#include "atomic_file.h"

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>

#ifdef Q_OS_WIN
#include <QFile>

// sddl.h needs the declarations of windows.h.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <memory>
#include <sddl.h>
#endif

namespace vantorelle {

namespace {

bool writeAll(QIODevice& file, const QByteArray& data, const SaveWriter& writer)
{
    return writer ? writer(file, data) : file.write(data) == data.size();
}

#ifdef Q_OS_WIN

// "D:P(A;;FA;;;<user>)(A;;FA;;;SY)": a protected list (nothing inherited from the folder) that
// lets only the current user and the system read or write.
QString ownerOnlySddl()
{
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token))
        return {};
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    auto buffer = std::make_unique<char[]>(size);
    LPWSTR sid = nullptr;
    QString sddl;
    if (GetTokenInformation(token, TokenUser, buffer.get(), size, &size) &&
        ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer.get())->User.Sid, &sid)) {
        sddl = QStringLiteral("D:P(A;;FA;;;%1)(A;;FA;;;SY)").arg(QString::fromWCharArray(sid));
        LocalFree(sid);
    }
    CloseHandle(token);
    return sddl;
}

// The temporary file is created with its access list, so no one else can open it even for a
// moment, and the rename keeps that list.
bool saveOwnerOnly(const QString& path, const QByteArray& data, const SaveWriter& writer)
{
    const QString sddl = ownerOnlySddl();
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (sddl.isEmpty() ||
        !ConvertStringSecurityDescriptorToSecurityDescriptorW(
            reinterpret_cast<LPCWSTR>(sddl.utf16()), SDDL_REVISION_1, &descriptor, nullptr))
        return false;
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor, FALSE};
    const QString part = QDir::toNativeSeparators(path + QStringLiteral(".part"));
    const HANDLE handle = CreateFileW(reinterpret_cast<LPCWSTR>(part.utf16()), GENERIC_WRITE, 0,
                                      &attributes, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    LocalFree(descriptor);
    if (handle == INVALID_HANDLE_VALUE)
        return false;
    bool written = false;
    {
        QFile file;
        const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_BINARY);
        written = fd >= 0 && file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle) &&
                  writeAll(file, data, writer) && file.flush() && FlushFileBuffers(handle);
        if (fd < 0)
            CloseHandle(handle);
    }
    const std::wstring target = QDir::toNativeSeparators(path).toStdWString();
    if (written && MoveFileExW(reinterpret_cast<LPCWSTR>(part.utf16()), target.c_str(),
                               MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return true;
    DeleteFileW(reinterpret_cast<LPCWSTR>(part.utf16()));
    return false;
}

#endif

} // namespace

bool saveFileAtomically(const QString& path, const QByteArray& data, const SaveWriter& writer)
{
    if (path.isEmpty())
        return false;
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;
#ifdef Q_OS_WIN
    return saveOwnerOnly(path, data, writer);
#else
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // Set before any byte is written, so the secrets inside are never readable by others.
    if (!file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)) {
        file.cancelWriting();
        return false;
    }
    if (!writeAll(file, data, writer)) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
#endif
}

} // namespace vantorelle
