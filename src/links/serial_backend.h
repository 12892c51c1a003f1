#pragma once

// The platform seam under SerialPort: plain C++ only, so the Windows backend builds without Qt.
// One backend is compiled per platform (serial_backend_win32.cpp or serial_backend_posix.cpp).

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vantorelle::serial {

// An open port: the backend's own record of it on Windows, a file descriptor elsewhere.
using NativeHandle = std::intptr_t;

// How long one write may make no progress before it gives up.
inline constexpr int DefaultWriteStallMs = 2000;

struct OpenOutcome
{
    bool ok = false;
    NativeHandle handle = -1;
    bool inUse = false; // another program (or another opener here) holds the port
    int error = 0;      // the system's error number when !ok
};

enum class ReadStatus
{
    Data,  // bytes arrived
    Idle,  // nothing buffered right now
    Failed // the device is gone or the port broke
};

struct PortEntry
{
    std::string port;         // the name to open, UTF-8
    std::string friendlyName; // what the system calls the device; may be empty
    std::string hardwareId;   // "USB\VID_xxxx&PID_yyyy..." or empty
};

// Opens `name` (UTF-8) with raw 115200 8N1, DTR and RTS low and both buffers purged.
OpenOutcome openPort(const std::string& name, int writeStallMs);
void closePort(NativeHandle handle);

// Never blocks; `count` is set for ReadStatus::Data.
ReadStatus readPort(NativeHandle handle, char* buffer, std::size_t capacity, std::size_t* count);

// Writes part of the block: the count written, 0 when nothing moved for `writeStallMs`, or -1
// when the call failed.
std::ptrdiff_t writePort(NativeHandle handle, const char* data, std::size_t size, int writeStallMs);

#ifdef _WIN32
// Windows has no descriptor to watch; instead a wait on the port sets an event when bytes arrive.

enum class WakeStatus
{
    Armed, // the event will be set when bytes arrive (or the wait ends otherwise)
    Ready, // bytes are there already: read again now
    Failed // the device is gone or the port broke
};

// The event to watch, or 0 when the driver cannot wait (then only polling reads the port). It is
// set when the port opens, so that the first pass reads and arms the wait.
NativeHandle readWakeEvent(NativeHandle handle);
// After each read: starts a new wait once the last one has ended (which clears the event). Only
// for a port that has a readWakeEvent.
WakeStatus armReadWake(NativeHandle handle);
#endif

// Present serial ports in a stable order. `systemRoot` is the device tree to read ("/sys" when
// empty); Windows asks SetupAPI, which has no such root.
std::vector<PortEntry> enumeratePorts(const std::string& systemRoot);

// Windows: "\\.\" in front unless it is already there, so that COM10 and up open too.
inline std::string win32DevicePath(const std::string& name)
{
    static const std::string prefix = "\\\\.\\";
    return name.compare(0, prefix.size(), prefix) == 0 ? name : prefix + name;
}

// Elsewhere: a bare "ttyACM0" lives in /dev; anything with a slash is a path already.
inline std::string posixDevicePath(const std::string& name)
{
    return name.find('/') == std::string::npos ? "/dev/" + name : name;
}

} // namespace vantorelle::serial
