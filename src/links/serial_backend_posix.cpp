// Linux backend of the serial seam: a raw non-blocking tty and enumeration from sysfs.

#include "serial_backend.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <tuple>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace vantorelle::serial {

namespace fs = std::filesystem;

namespace {

// Raw 115200 8N1, no flow control. VMIN=1 keeps read() returning 0 for a gone device only; the
// fd is non-blocking, so an idle port reports EAGAIN instead.
void applyLineSettings(int fd)
{
    termios tio = {};
    tcgetattr(fd, &tio);
    cfmakeraw(&tio);
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    tio.c_cflag &= ~(PARENB | CSTOPB | CSIZE | CRTSCTS);
    tio.c_cflag |= CS8 | CLOCAL | CREAD;
    tio.c_iflag &= ~(IXON | IXOFF | IXANY);
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    tcsetattr(fd, TCSANOW, &tio);
}

// Pseudo-terminals have no modem lines and refuse this; that is harmless.
void dropModemLine(int fd, int line)
{
    ioctl(fd, TIOCMBIC, &line);
}

OpenOutcome failure(int error)
{
    return {false, -1, error == EBUSY, error};
}

// TIOCEXCL keeps other openers out, but root passes it; the advisory lock stops those programs
// (and a second opener here) that take it as well.
OpenOutcome lockExclusively(int fd)
{
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno == EWOULDBLOCK ? EBUSY : errno;
        close(fd);
        return failure(error);
    }
    ioctl(fd, TIOCEXCL);
    return {true, fd, false, 0};
}

std::string readLine(const fs::path& file)
{
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())))
        line.pop_back();
    return line;
}

std::string upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return char(std::toupper(c)); });
    return text;
}

// The USB device above a tty: the nearest ancestor that has an idVendor, inside `root`.
fs::path usbDeviceOf(const fs::path& tty, const fs::path& root)
{
    std::error_code error;
    fs::path dir = fs::canonical(tty / "device", error);
    if (error)
        return {};
    const std::string inside = root.native() + "/";
    for (; dir.native().starts_with(inside); dir = dir.parent_path()) {
        if (fs::exists(dir / "idVendor", error))
            return dir;
    }
    return {};
}

// "Maker Product (ttyACM0)", as Windows shows a port; empty when the device names nothing.
std::string friendlyName(const fs::path& usb, const std::string& name)
{
    std::string label = readLine(usb / "manufacturer");
    const std::string product = readLine(usb / "product");
    if (!label.empty() && !product.empty())
        label += ' ';
    label += product;
    return label.empty() ? label : label + " (" + name + ")";
}

std::string hardwareId(const fs::path& usb)
{
    const std::string vendor = readLine(usb / "idVendor");
    const std::string product = readLine(usb / "idProduct");
    if (vendor.empty() || product.empty())
        return {};
    return "USB\\VID_" + upper(vendor) + "&PID_" + upper(product);
}

bool isUsbSerialName(const std::string& name)
{
    return name.starts_with("ttyACM") || name.starts_with("ttyUSB");
}

// ttyACM0, ttyACM1, ..., ttyACM10, then ttyUSB0, ...
bool portOrder(const std::string& a, const std::string& b)
{
    const auto key = [](const std::string& name) {
        const std::size_t digits = name.find_first_of("0123456789");
        const std::string stem = name.substr(0, digits);
        const std::string number = digits == std::string::npos ? "" : name.substr(digits);
        return std::make_tuple(stem, number.size(), number);
    };
    return key(a) < key(b);
}

} // namespace

OpenOutcome openPort(const std::string& name, int)
{
    const int fd = open(posixDevicePath(name).c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return failure(errno);
    const OpenOutcome locked = lockExclusively(fd);
    if (!locked.ok)
        return locked;
    applyLineSettings(fd);
    dropModemLine(fd, TIOCM_DTR);
    dropModemLine(fd, TIOCM_RTS);
    tcflush(fd, TCIOFLUSH);
    return locked;
}

void closePort(NativeHandle handle)
{
    const int fd = int(handle);
    // The exclusive flag belongs to the tty, which can outlive this fd (a pseudo-terminal does).
    ioctl(fd, TIOCNXCL);
    close(fd);
}

ReadStatus readPort(NativeHandle handle, char* buffer, std::size_t capacity, std::size_t* count)
{
    for (;;) {
        const ssize_t got = read(int(handle), buffer, capacity);
        if (got > 0) {
            *count = std::size_t(got);
            return ReadStatus::Data;
        }
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return ReadStatus::Idle;
        return ReadStatus::Failed; // 0: hung up; anything else: the port broke
    }
}

std::ptrdiff_t writePort(NativeHandle handle, const char* data, std::size_t size, int writeStallMs)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::milliseconds(writeStallMs);
    const int fd = int(handle);
    for (;;) {
        const ssize_t written = write(fd, data, size);
        if (written >= 0)
            return written;
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return -1;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            return 0;
        pollfd waiter = {fd, POLLOUT, 0};
        if (poll(&waiter, 1, int(left.count())) == 0)
            return 0;
    }
}

std::vector<PortEntry> enumeratePorts(const std::string& systemRoot)
{
    std::error_code error;
    const fs::path root = fs::canonical(systemRoot.empty() ? "/sys" : systemRoot, error);
    if (error)
        return {};
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(root / "class" / "tty", error)) {
        const std::string name = entry.path().filename().string();
        if (isUsbSerialName(name))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end(), portOrder);
    std::vector<PortEntry> ports;
    for (const std::string& name : names) {
        const fs::path usb = usbDeviceOf(root / "class" / "tty" / name, root);
        const std::string label = usb.empty() ? std::string() : friendlyName(usb, name);
        const std::string id = usb.empty() ? std::string() : hardwareId(usb);
        ports.push_back({"/dev/" + name, label, id});
    }
    return ports;
}

} // namespace vantorelle::serial
