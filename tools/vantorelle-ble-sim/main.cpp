// vantorelle-ble-sim: plays the Bluetooth helper program, with simulated devices in radio range,
// so the plug-in's Bluetooth route can be tried and tested without a radio. The plug-in starts
// it as it starts the real helper: it prints {"port":N} and serves until told to quit or until
// the plug-in's connection closes.

#include "common/quit_on_signals.h"
#include "sim/ble_helper.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

using namespace vantorelle;

namespace {

QCommandLineOption valued(const char* name, const char* help, const char* fallback = "")
{
    return {QLatin1String(name), QLatin1String(help), QStringLiteral("VALUE"),
            QLatin1String(fallback)};
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Plays the Vantorelle Bluetooth helper with simulated devices."));
    parser.addHelpOption();
    const QCommandLineOption token = valued("token", "The token the plug-in greets with.");
    const QCommandLineOption password =
        valued("password", "The devices' admin password (default: admin).");
    const QCommandLineOption passkey =
        valued("passkey", "A pairing passkey that connecting must give (default: none).");
    const QCommandLineOption devices = valued("devices", "Devices within reach.", "1");
    const QCommandLineOption dropAfter =
        valued("drop-after-ms", "A connected device goes out of range after this (0: never).", "0");
    const QCommandLineOption replyDelay =
        valued("reply-delay-ms", "Delay before each device reply.", "0");
    const QCommandLineOption interval =
        valued("interval", "Milliseconds between game seconds.", "1000");
    parser.addOptions({token, password, passkey, devices, dropAfter, replyDelay, interval});
    parser.process(app);
    // Options also come from the environment, because the plug-in starts the helper with the
    // token alone.
    const auto option = [&](const QCommandLineOption& which, const char* variable) {
        const QString fromEnvironment = qEnvironmentVariable(variable);
        return parser.isSet(which) || fromEnvironment.isEmpty() ? parser.value(which)
                                                                : fromEnvironment;
    };

    sim::BleHelperOptions options;
    options.token = parser.value(token);
    options.password = option(password, "VANTORELLE_BLE_SIM_PASSWORD");
    options.passkey = option(passkey, "VANTORELLE_BLE_SIM_PASSKEY");
    options.devices = qMax(1, option(devices, "VANTORELLE_BLE_SIM_DEVICES").toInt());
    options.dropAfterMs = option(dropAfter, "VANTORELLE_BLE_SIM_DROP_AFTER_MS").toInt();
    options.replyDelayMs = option(replyDelay, "VANTORELLE_BLE_SIM_REPLY_DELAY_MS").toInt();
    options.gameIntervalMs = qMax(1, option(interval, "VANTORELLE_BLE_SIM_INTERVAL").toInt());

    sim::BleHelper helper(options);
    if (!helper.start())
        return 1;
    QObject::connect(&helper, &sim::BleHelper::finished, &app, &QCoreApplication::quit,
                     Qt::QueuedConnection);
    tools::quitOnSignals(app);
    QTextStream(stdout) << QJsonDocument(QJsonObject{{QStringLiteral("port"), helper.port()}})
                               .toJson(QJsonDocument::Compact)
                        << '\n'
                        << Qt::flush;
    return app.exec();
}
