// Windows backend of the serial seam: overlapped COM port I/O, so that a pending wait can say when
// bytes arrive, and SetupAPI enumeration.

#include "serial_backend.h"

#include <windows.h>

#include <initguid.h>

#include <devguid.h>
#include <setupapi.h>

#include <algorithm>
#include <utility>

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

// What stands behind a NativeHandle: the port and one OVERLAPPED per kind of operation. Reads
// and writes are finished before their call returns; only the wait may stay pending.
struct Port
{
    HANDLE handle = INVALID_HANDLE_VALUE;
    OVERLAPPED read = {};
    OVERLAPPED write = {};
    OVERLAPPED wake = {};
    DWORD wakeMask = 0;
    bool waiting = false; // a WaitCommEvent is outstanding (perhaps finished already)
};

Port* toPort(NativeHandle handle)
{
    return reinterpret_cast<Port*>(handle);
}

void releasePort(Port* port)
{
    for (OVERLAPPED* op : {&port->read, &port->write, &port->wake}) {
        if (op->hEvent)
            CloseHandle(op->hEvent);
    }
    if (port->handle != INVALID_HANDLE_VALUE)
        CloseHandle(port->handle);
    delete port;
}

// What an operation moved, without waiting for more: one still pending is cancelled. False when
// it failed.
bool settle(Port* port, OVERLAPPED* op, DWORD* moved)
{
    if (GetOverlappedResult(port->handle, op, moved, FALSE))
        return true;
    if (GetLastError() != ERROR_IO_INCOMPLETE)
        return false;
    CancelIoEx(port->handle, op);
    if (GetOverlappedResult(port->handle, op, moved, TRUE))
        return true;
    return GetLastError() == ERROR_OPERATION_ABORTED; // `moved` still counts what got through
}

// Ready when bytes wait in the driver; Failed when the port no longer answers. Asking also
// clears a line error, which some drivers otherwise answer by failing every read.
WakeStatus bufferedBytes(Port* port)
{
    COMSTAT status = {};
    DWORD errors = 0;
    if (!ClearCommError(port->handle, &errors, &status))
        return WakeStatus::Failed;
    return status.cbInQue > 0 ? WakeStatus::Ready : WakeStatus::Armed;
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
    HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        return {false, -1, error == ERROR_ACCESS_DENIED, int(error)};
    }
    auto* port = new Port;
    port->handle = handle;
    port->read.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    port->write.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    // Set from the start: the first pass over the port reads and arms the wait.
    port->wake.hEvent = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    if (!port->read.hEvent || !port->write.hEvent || !port->wake.hEvent) {
        const DWORD error = GetLastError();
        releasePort(port);
        return {false, -1, false, int(error)};
    }
    applyLineSettings(handle);
    applyTimeouts(handle, writeStallMs);
    // The device must never see DTR or RTS asserted.
    EscapeCommFunction(handle, CLRDTR);
    EscapeCommFunction(handle, CLRRTS);
    PurgeComm(handle, PURGE_TXCLEAR | PURGE_RXCLEAR);
    // A driver that cannot wait for events is read on the timer alone.
    if (!SetCommMask(handle, EV_RXCHAR | EV_ERR))
        CloseHandle(std::exchange(port->wake.hEvent, nullptr));
    return {true, reinterpret_cast<NativeHandle>(port), false, 0};
}

void closePort(NativeHandle handle)
{
    Port* port = toPort(handle);
    // The driver must be done with the OVERLAPPEDs before they go.
    CancelIoEx(port->handle, nullptr);
    if (port->waiting) {
        DWORD unused = 0;
        GetOverlappedResult(port->handle, &port->wake, &unused, TRUE);
    }
    releasePort(port);
}

ReadStatus readPort(NativeHandle handle, char* buffer, std::size_t capacity, std::size_t* count)
{
    Port* port = toPort(handle);
    COMSTAT status = {};
    DWORD errors = 0;
    if (!ClearCommError(port->handle, &errors, &status))
        return ReadStatus::Failed;
    // Never ask for more than is buffered: wine keeps an overlapped read of an empty port pending
    // despite the timeouts, and a read of what is there never waits.
    if (status.cbInQue == 0)
        return ReadStatus::Idle;
    const DWORD wanted = DWORD(std::min<std::size_t>(capacity, status.cbInQue));
    DWORD got = 0;
    if (!ReadFile(port->handle, buffer, wanted, &got, &port->read) &&
        (GetLastError() != ERROR_IO_PENDING || !settle(port, &port->read, &got)))
        return ReadStatus::Failed;
    *count = got;
    return got == 0 ? ReadStatus::Idle : ReadStatus::Data;
}

std::ptrdiff_t writePort(NativeHandle handle, const char* data, std::size_t size, int writeStallMs)
{
    Port* port = toPort(handle);
    DWORD written = 0;
    if (WriteFile(port->handle, data, DWORD(size), &written, &port->write))
        return std::ptrdiff_t(written);
    if (GetLastError() != ERROR_IO_PENDING)
        return -1;
    // The driver's own write time-out normally ends it first; this wait is the backstop.
    WaitForSingleObject(port->write.hEvent, DWORD(std::max(writeStallMs, 0)));
    return settle(port, &port->write, &written) ? std::ptrdiff_t(written) : -1;
}

NativeHandle readWakeEvent(NativeHandle handle)
{
    return reinterpret_cast<NativeHandle>(toPort(handle)->wake.hEvent);
}

WakeStatus armReadWake(NativeHandle handle)
{
    Port* port = toPort(handle);
    if (port->waiting) {
        DWORD unused = 0;
        if (!GetOverlappedResult(port->handle, &port->wake, &unused, FALSE)) {
            const DWORD error = GetLastError();
            if (error == ERROR_IO_INCOMPLETE)
                return bufferedBytes(port); // still waiting
            // Only a cancel ends a wait this way (wine cancels its own every few milliseconds);
            // any other error means the device is gone.
            if (error != ERROR_OPERATION_ABORTED)
                return WakeStatus::Failed;
        }
        port->waiting = false;
    }
    port->wakeMask = 0;
    if (WaitCommEvent(port->handle, &port->wakeMask, &port->wake))
        return WakeStatus::Ready; // something happened already
    if (GetLastError() != ERROR_IO_PENDING)
        return WakeStatus::Failed;
    port->waiting = true;
    // Bytes that came before the wait began need not count as an event.
    return bufferedBytes(port);
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
