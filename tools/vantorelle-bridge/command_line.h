#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

namespace vantorelle::bridge {

// The device a command talks to: a USB serial port, a host on the local network, or a device
// of the portal account.
struct DeviceTarget
{
    enum class Route
    {
        Usb,
        Lan,
        Cloud
    };

    Route route = Route::Usb;
    QString address; // port name, host, or device id
    QString name;    // shown in every status sentence; empty: derived from the device
};

struct WatchCommand
{
    DeviceTarget target;
    QString password;
    QString token;
    quint16 feedPort = 1010;
    std::optional<quint16> servePort;
    std::optional<quint16> httpPort; // HTTP alone, for browsers and other HTTP readers
    bool allowNetwork = false;
    QString filesFolder; // empty: no text files
    bool json = false;
};

struct CallCommand
{
    DeviceTarget target;
    QString password;
    QString method;
    QJsonObject params;
    int timeoutMs = 20000;
};

struct UpdateCommand
{
    QString installFolder;
    QString manifestUrl; // empty: the built-in address
    QString stagingFolder;
    bool fileByFile = false;
};

// One parsed command line. `command` is "ports", "watch", "call", "update", "signin", "signout"
// or "help"; the record of that command is filled in.
struct CommandLine
{
    QString command;
    WatchCommand watch;
    CallCommand call;
    UpdateCommand update;
    QString email;
    QString sessionFile; // empty: the user's configuration folder
};

// Parses the arguments (without the program name). On bad usage returns nothing and, when
// `problem` is given, writes what was wrong into it.
std::optional<CommandLine> parseCommandLine(const QStringList& arguments, QString* problem);

// The text printed by --help and after bad usage.
QString usageText();

} // namespace vantorelle::bridge
