// Windows backend of the serial seam: synchronous COM port I/O and SetupAPI enumeration.

#include "serial_backend.h"

#include <windows.h>

#include <initguid.h>

#include <devguid.h>
#include <setupapi.h>

namespace vantorelle::serial {

namespace {

std::wstring toWide(const std::string& text)
{
    if (text.empty())
        return {};
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0);
    std::wstring wide(std::size_t(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), wide.data(), size);
    return wide;
}

std::string toUtf8(const wchar_t* text)
{
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1)
        return {};
    std::string utf8(std::size_t(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), size, nullptr, nullptr);
    utf8.resize(std::size_t(size - 1)); // drop the terminator
    return utf8;
}

HANDLE toHandle(NativeHandle handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

// Raw 115200 8N1 with every kind of flow control off; other flags stay as the driver has them.
void applyLineSettings(HANDLE port)
{
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    GetCommState(port, &dcb);
    dcb.BaudRate = CBR_115200;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = TRUE;
    dcb.fParity = FALSE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = DTR_CONTROL_DISABLE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fRtsControl = RTS_CONTROL_DISABLE;
    SetCommState(port, &dcb);
}

// Reads return at once with whatever is buffered; a write gives up after the stall limit.
void applyTimeouts(HANDLE port, int writeStallMs)
{
    COMMTIMEOUTS timeouts = {};
    timeouts.ReadIntervalTimeout = MAXDWORD;
    timeouts.ReadTotalTimeoutMultiplier = 0;
    timeouts.ReadTotalTimeoutConstant = 0;
    timeouts.WriteTotalTimeoutMultiplier = 0;
    timeouts.WriteTotalTimeoutConstant = DWORD(writeStallMs);
    SetCommTimeouts(port, &timeouts);
}

std::wstring registryProperty(HDEVINFO devices, SP_DEVINFO_DATA* device, DWORD property,
                              std::size_t bytes)
{
    std::vector<wchar_t> buffer(bytes / sizeof(wchar_t) + 1, L'\0');
    SetupDiGetDeviceRegistryPropertyW(devices, device, property, nullptr,
                                      reinterpret_cast<PBYTE>(buffer.data()), DWORD(bytes),
                                      nullptr);
    return buffer.data(); // a multi-string yields its first string
}

// The "PortName" value of the device's hardware key; empty when there is none.
std::wstring portName(HDEVINFO devices, SP_DEVINFO_DATA* device)
{
    HKEY key = SetupDiOpenDevRegKey(devices, device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_READ);
    if (key == INVALID_HANDLE_VALUE)
        return {};
    wchar_t buffer[64 + 1] = {};
    DWORD size = 128;
    const LONG status = RegQueryValueExW(key, L"PortName", nullptr, nullptr,
                                         reinterpret_cast<LPBYTE>(buffer), &size);
    RegCloseKey(key);
    return status == ERROR_SUCCESS ? std::wstring(buffer) : std::wstring();
}

} // namespace

OpenOutcome openPort(const std::string& name, int writeStallMs)
{
    const std::wstring path = toWide(win32DevicePath(name));
    HANDLE port = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              0, nullptr);
    if (port == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        return {false, -1, error == ERROR_ACCESS_DENIED, int(error)};
    }
    applyLineSettings(port);
    applyTimeouts(port, writeStallMs);
    // The device must never see DTR or RTS asserted.
    EscapeCommFunction(port, CLRDTR);
    EscapeCommFunction(port, CLRRTS);
    PurgeComm(port, PURGE_TXCLEAR | PURGE_RXCLEAR);
    return {true, reinterpret_cast<NativeHandle>(port), false, 0};
}

void closePort(NativeHandle handle)
{
    CloseHandle(toHandle(handle));
}

ReadStatus readPort(NativeHandle handle, char* buffer, std::size_t capacity, std::size_t* count)
{
    DWORD got = 0;
    if (!ReadFile(toHandle(handle), buffer, DWORD(capacity), &got, nullptr))
        return ReadStatus::Failed;
    *count = got;
    return got == 0 ? ReadStatus::Idle : ReadStatus::Data;
}

std::ptrdiff_t writePort(NativeHandle handle, const char* data, std::size_t size, int)
{
    DWORD written = 0;
    if (!WriteFile(toHandle(handle), data, DWORD(size), &written, nullptr))
        return -1;
    return std::ptrdiff_t(written);
}

std::vector<PortEntry> enumeratePorts(const std::string&)
{
    std::vector<PortEntry> ports;
    HDEVINFO devices = SetupDiGetClassDevsW(&GUID_DEVCLASS_PORTS, nullptr, nullptr, DIGCF_PRESENT);
    if (devices == INVALID_HANDLE_VALUE)
        return ports;
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; SetupDiEnumDeviceInfo(devices, index, &device); ++index) {
        const std::wstring friendly = registryProperty(devices, &device, SPDRP_FRIENDLYNAME, 512);
        const std::wstring hardware = registryProperty(devices, &device, SPDRP_HARDWAREID, 1024);
        const std::wstring port = portName(devices, &device);
        // Printer ports share the class; only COM ports are of interest.
        if (port.compare(0, 3, L"COM") != 0)
            continue;
        ports.push_back({toUtf8(port.c_str()), toUtf8(friendly.c_str()), toUtf8(hardware.c_str())});
    }
    SetupDiDestroyDeviceInfoList(devices);
    return ports;
}

} // namespace vantorelle::serial
