#include "command_line.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QJsonDocument>
#include <QSet>

namespace vantorelle::bridge {

namespace {

QCommandLineOption valued(const char* name, const char* valueName)
{
    return QCommandLineOption(QString::fromLatin1(name), QString(), QString::fromLatin1(valueName));
}

QCommandLineOption flag(const char* name)
{
    return QCommandLineOption(QString::fromLatin1(name));
}

const QList<QCommandLineOption>& allOptions()
{
    static const QList<QCommandLineOption> options{
        QCommandLineOption(QStringList{QStringLiteral("h"), QStringLiteral("help")}),
        valued("usb", "PORT"),
        valued("lan", "HOST"),
        valued("cloud", "DEVICE_ID"),
        valued("token", "TOKEN"),
        valued("feed-port", "N"),
        valued("password", "PW"),
        valued("name", "NAME"),
        valued("serve", "PORT"),
        valued("http", "PORT"),
        valued("files", "DIR"),
        flag("allow-network"),
        flag("json"),
        valued("timeout", "MS"),
        valued("session", "FILE"),
        valued("install-dir", "DIR"),
        valued("manifest", "URL"),
        valued("staging", "DIR"),
        flag("file-by-file"),
    };
    return options;
}

// Fails when an option outside `allowed` was given.
bool onlyOptions(const QCommandLineParser& parser, const QStringList& allowed, QString* problem)
{
    for (const QString& name : parser.optionNames()) {
        if (!allowed.contains(name)) {
            *problem = QStringLiteral("--%1 does not apply to this command").arg(name);
            return false;
        }
    }
    return true;
}

std::optional<quint16> portValue(const QString& text, bool allowZero)
{
    bool ok = false;
    const quint16 port = text.toUShort(&ok);
    if (!ok || (port == 0 && !allowZero))
        return std::nullopt;
    return port;
}

// Exactly one of the route options in `routes` must be given.
bool readTarget(const QCommandLineParser& parser, const QStringList& routes, DeviceTarget* target,
                QString* problem)
{
    QStringList given;
    for (const QString& route : routes) {
        if (parser.isSet(route))
            given.append(route);
    }
    if (given.size() != 1) {
        *problem = QStringLiteral("name the device with exactly one of --%1")
                       .arg(routes.join(QStringLiteral(", --")));
        return false;
    }
    const QString route = given.first();
    target->route = route == QLatin1String("usb")   ? DeviceTarget::Route::Usb
                    : route == QLatin1String("lan") ? DeviceTarget::Route::Lan
                                                    : DeviceTarget::Route::Cloud;
    target->address = parser.value(route);
    target->name = parser.value(QStringLiteral("name"));
    return true;
}

bool readWatch(const QCommandLineParser& parser, const QStringList& rest, WatchCommand* watch,
               QString* problem)
{
    if (!onlyOptions(parser,
                     {QStringLiteral("usb"), QStringLiteral("lan"), QStringLiteral("cloud"),
                      QStringLiteral("token"), QStringLiteral("feed-port"),
                      QStringLiteral("password"), QStringLiteral("name"), QStringLiteral("serve"),
                      QStringLiteral("http"), QStringLiteral("files"),
                      QStringLiteral("allow-network"), QStringLiteral("json"),
                      QStringLiteral("session")},
                     problem))
        return false;
    if (!rest.isEmpty()) {
        *problem = QStringLiteral("watch takes no arguments besides its options");
        return false;
    }
    if (!readTarget(parser, {QStringLiteral("usb"), QStringLiteral("lan"), QStringLiteral("cloud")},
                    &watch->target, problem))
        return false;
    const bool lan = watch->target.route == DeviceTarget::Route::Lan;
    if (lan == parser.value(QStringLiteral("token")).isEmpty()) {
        *problem = QStringLiteral("--token is needed with --lan, and only there");
        return false;
    }
    if (parser.isSet(QStringLiteral("feed-port"))) {
        const auto port = portValue(parser.value(QStringLiteral("feed-port")), false);
        if (!port || !lan) {
            *problem = QStringLiteral("--feed-port takes a port from 1 to 65535, with --lan");
            return false;
        }
        watch->feedPort = *port;
    }
    for (const auto& [option, port] : {std::pair{QStringLiteral("serve"), &watch->servePort},
                                       std::pair{QStringLiteral("http"), &watch->httpPort}}) {
        if (!parser.isSet(option))
            continue;
        *port = portValue(parser.value(option), true);
        if (!*port) {
            *problem = QStringLiteral("--%1 takes a port from 0 to 65535").arg(option);
            return false;
        }
    }
    if (watch->servePort && watch->httpPort && *watch->servePort == *watch->httpPort &&
        *watch->servePort != 0) {
        *problem = QStringLiteral("--serve and --http need different ports (--serve answers "
                                  "HTTP as well)");
        return false;
    }
    watch->allowNetwork = parser.isSet(QStringLiteral("allow-network"));
    if (watch->allowNetwork && !watch->servePort && !watch->httpPort) {
        *problem = QStringLiteral("--allow-network needs --serve or --http");
        return false;
    }
    if (parser.isSet(QStringLiteral("files"))) {
        watch->filesFolder = parser.value(QStringLiteral("files"));
        if (watch->filesFolder.isEmpty()) {
            *problem = QStringLiteral("--files takes a folder");
            return false;
        }
    }
    watch->json = parser.isSet(QStringLiteral("json"));
    watch->password = parser.value(QStringLiteral("password"));
    watch->token = parser.value(QStringLiteral("token"));
    return true;
}

bool readCall(const QCommandLineParser& parser, const QStringList& rest, CallCommand* call,
              QString* problem)
{
    if (!onlyOptions(parser,
                     {QStringLiteral("usb"), QStringLiteral("lan"), QStringLiteral("password"),
                      QStringLiteral("name"), QStringLiteral("timeout")},
                     problem) ||
        !readTarget(parser, {QStringLiteral("usb"), QStringLiteral("lan")}, &call->target, problem))
        return false;
    if (!parser.isSet(QStringLiteral("password"))) {
        *problem = QStringLiteral("call needs --password");
        return false;
    }
    if (rest.isEmpty() || rest.size() > 2) {
        *problem = QStringLiteral("call takes a METHOD and optionally its PARAMS_JSON");
        return false;
    }
    call->password = parser.value(QStringLiteral("password"));
    call->method = rest.first();
    if (rest.size() == 2) {
        const QJsonDocument params = QJsonDocument::fromJson(rest.at(1).toUtf8());
        if (!params.isObject()) {
            *problem = QStringLiteral("PARAMS_JSON must be a JSON object");
            return false;
        }
        call->params = params.object();
    }
    if (parser.isSet(QStringLiteral("timeout"))) {
        bool ok = false;
        call->timeoutMs = parser.value(QStringLiteral("timeout")).toInt(&ok);
        if (!ok || call->timeoutMs <= 0) {
            *problem = QStringLiteral("--timeout takes a positive number of milliseconds");
            return false;
        }
    }
    return true;
}

bool readUpdate(const QCommandLineParser& parser, const QStringList& rest, UpdateCommand* update,
                QString* problem)
{
    if (!onlyOptions(parser,
                     {QStringLiteral("install-dir"), QStringLiteral("manifest"),
                      QStringLiteral("staging"), QStringLiteral("file-by-file")},
                     problem))
        return false;
    if (!rest.isEmpty() || !parser.isSet(QStringLiteral("install-dir"))) {
        *problem = QStringLiteral("update takes --install-dir DIR and no arguments");
        return false;
    }
    update->installFolder = parser.value(QStringLiteral("install-dir"));
    update->manifestUrl = parser.value(QStringLiteral("manifest"));
    update->stagingFolder = parser.value(QStringLiteral("staging"));
    update->fileByFile = parser.isSet(QStringLiteral("file-by-file"));
    return true;
}

bool readAccount(const QCommandLineParser& parser, const QString& command, const QStringList& rest,
                 CommandLine* line, QString* problem)
{
    if (!onlyOptions(parser, {QStringLiteral("session")}, problem))
        return false;
    const qsizetype wanted = command == QLatin1String("signin") ? 1 : 0;
    if (rest.size() != wanted) {
        *problem = wanted ? QStringLiteral("signin takes the account's EMAIL")
                          : QStringLiteral("signout takes no arguments");
        return false;
    }
    if (wanted)
        line->email = rest.first();
    return true;
}

} // namespace

std::optional<CommandLine> parseCommandLine(const QStringList& arguments, QString* problem)
{
    QString ignored;
    if (!problem)
        problem = &ignored;
    QCommandLineParser parser;
    parser.addOptions(allOptions());
    if (!parser.parse(QStringList{QStringLiteral("vantorelle-bridge")} + arguments)) {
        *problem = parser.errorText();
        return std::nullopt;
    }
    CommandLine line;
    if (parser.isSet(QStringLiteral("help"))) {
        line.command = QStringLiteral("help");
        return line;
    }
    QStringList rest = parser.positionalArguments();
    if (rest.isEmpty()) {
        *problem = QStringLiteral("no command given");
        return std::nullopt;
    }
    line.command = rest.takeFirst();
    line.sessionFile = parser.value(QStringLiteral("session"));
    bool ok = false;
    if (line.command == QLatin1String("ports")) {
        ok = onlyOptions(parser, {}, problem);
        if (ok && !rest.isEmpty()) {
            *problem = QStringLiteral("ports takes no arguments");
            ok = false;
        }
    } else if (line.command == QLatin1String("watch")) {
        ok = readWatch(parser, rest, &line.watch, problem);
    } else if (line.command == QLatin1String("call")) {
        ok = readCall(parser, rest, &line.call, problem);
    } else if (line.command == QLatin1String("update")) {
        ok = readUpdate(parser, rest, &line.update, problem);
    } else if (line.command == QLatin1String("signin") ||
               line.command == QLatin1String("signout")) {
        ok = readAccount(parser, line.command, rest, &line, problem);
    } else {
        *problem = QStringLiteral("unknown command \"%1\"").arg(line.command);
    }
    if (!ok)
        return std::nullopt;
    return line;
}

QString usageText()
{
    return QStringLiteral(
        "Usage:\n"
        "  vantorelle-bridge ports\n"
        "  vantorelle-bridge watch (--usb PORT [--password PW] | --lan HOST --token TOKEN\n"
        "                          [--feed-port N] | --cloud DEVICE_ID [--session FILE])\n"
        "                          [--name NAME] [--serve PORT] [--http PORT]\n"
        "                          [--allow-network] [--files DIR] [--json]\n"
        "  vantorelle-bridge call (--usb PORT | --lan HOST) --password PW [--timeout MS]\n"
        "                         METHOD [PARAMS_JSON]\n"
        "  vantorelle-bridge update --install-dir DIR [--manifest URL] [--staging DIR]\n"
        "                           [--file-by-file]\n"
        "  vantorelle-bridge signin EMAIL [--session FILE]\n"
        "  vantorelle-bridge signout [--session FILE]\n"
        "\n"
        "Commands:\n"
        "  ports     List the serial ports: port, description and \"likely\" for ports that\n"
        "            look like a Vantorelle device, separated by tabs.\n"
        "  watch     Follow one device's live scoreboard data until SIGINT or SIGTERM. Status\n"
        "            sentences go to standard error as they change.\n"
        "  call      Sign in to a device, send one request and print its result as compact\n"
        "            JSON. Exits 0 on success, 1 with the failure sentence otherwise.\n"
        "  update    Update the plug-in installed in DIR (the folder holding bin/ and data/)\n"
        "            while OBS is closed: first finish or undo a swap a crash interrupted,\n"
        "            then check, download, verify and install like the dock's Install button.\n"
        "            Status sentences go to standard output. Exits 0 when up to date or\n"
        "            installed, 1 with the failure sentence otherwise.\n"
        "  signin    Sign in to the Vantorelle portal and keep the session for watch --cloud.\n"
        "            The password (and the one-time code, when the account asks for one) is\n"
        "            read from the terminal without echo, or one per line from standard input.\n"
        "  signout   Sign out of the portal and forget the kept session.\n"
        "\n"
        "Options:\n"
        "  --usb PORT         The device on this serial port (see ports).\n"
        "  --lan HOST         The device at this address on the local network.\n"
        "  --cloud DEVICE_ID  This device of the signed-in portal account.\n"
        "  --password PW      The device's admin password.\n"
        "  --token TOKEN      The access token of the device's live feed (with --lan).\n"
        "  --feed-port N      The device's live feed port (with --lan; default 1010).\n"
        "  --name NAME        The device's name in status sentences.\n"
        "  --serve PORT       Share the live data with other programs: a TCP server that\n"
        "                     writes one JSON line per update (0 picks a free port). A\n"
        "                     connection that opens with an HTTP request is answered as\n"
        "                     --http does.\n"
        "  --http PORT        Serve the live data over HTTP alone (0 picks a free port):\n"
        "                       /overlay          a scorebug page for a browser source;\n"
        "                                         ?template={home_score}%20-%20{away_score}\n"
        "                                         &font=Arial&size=64&color=%23ffffff\n"
        "                                         &background=transparent&weight=bold\n"
        "                                         &align=center choose its look\n"
        "                       /events           Server-Sent Events: the snapshot, then\n"
        "                                         one event per change\n"
        "                       /snapshot.json    the snapshot, as a --serve client gets it\n"
        "                       /snapshot.xml     the sport and one element per field\n"
        "                       /fields/NAME.txt  one field's text\n"
        "                     Browsers should use this port rather than --serve's: one that\n"
        "                     keeps a spare connection open gets it greeted as a JSON line\n"
        "                     client there.\n"
        "  --allow-network    Accept clients of --serve and --http from other machines, not\n"
        "                     only from this one.\n"
        "  --files DIR        Keep one UTF-8 text file per field in DIR (DIR/NAME.txt),\n"
        "                     replaced in one step when its value changes and emptied when\n"
        "                     the field goes away. Fields whose names hold other characters\n"
        "                     than letters, digits, \"_\" and \"-\" get no file.\n"
        "  --json             Print every snapshot of the live data as one JSON line on\n"
        "                     standard output.\n"
        "  --timeout MS       How long call waits for the device's answer (default 20000).\n"
        "  --session FILE     The portal session file (default: session.json in the user's\n"
        "                     configuration folder for vantorelle).\n"
        "  --install-dir DIR  The plug-in folder to update.\n"
        "  --manifest URL     The update manifest (default: the maker's update service).\n"
        "  --staging DIR      The updater's working folder (default: DIR.update beside it).\n"
        "  --file-by-file     Replace the files one by one, as when OBS holds the module,\n"
        "                     instead of moving the whole folder.\n"
        "  -h, --help         Show this text.\n"
        "\n"
        "Environment:\n"
        "  VANTORELLE_PORTAL_URL  The portal's base address, when not the built-in one.\n"
        "\n"
        "Bad usage exits with status 2.\n");
}

} // namespace vantorelle::bridge
