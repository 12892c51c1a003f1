// vantorelle-sim: plays a Vantorelle device without hardware, for trying the plug-in (or any
// program that speaks the device's protocols). One simulated game feeds every route that is
// switched on: a device on a pseudo-terminal (the default), a device on the local network (HTTP
// admin API and TLS feed) and the cloud portal. Prints where to reach them, then plays until
// SIGINT or SIGTERM.

#include "common/quit_on_signals.h"
#include "sim/admin_responder.h"
#include "sim/feed_certificate.h"
#include "sim/feed_server.h"
#include "sim/game.h"
#include "sim/lan_device.h"
#include "sim/portal_server.h"
#include "sim/usb_device.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRandomGenerator>
#include <QSslCertificate>
#include <QSslKey>
#include <QTextStream>

#include <memory>
#include <optional>

using namespace vantorelle;

namespace {

const QString kPortalDeviceId = QStringLiteral("vt-sim-0001");
const QString kShareToken = QStringLiteral("sim-scoreboard");

// "--NAME PORT", 0 (any port) by default.
QCommandLineOption portFor(const char* name, const char* what)
{
    return {QLatin1String(name),
            QStringLiteral("Port of %1 (default: any).").arg(QLatin1String(what)),
            QStringLiteral("PORT"), QStringLiteral("0")};
}

struct Options
{
    QCommandLineOption interval{
        QStringLiteral("interval"),
        QStringLiteral("Milliseconds between live envelopes (one game second each)."),
        QStringLiteral("MS"), QStringLiteral("1000")};
    QCommandLineOption sport{QStringLiteral("sport"),
                             QStringLiteral("hockey (default) or basketball."),
                             QStringLiteral("NAME"), QStringLiteral("hockey")};
    QCommandLineOption password{QStringLiteral("password"),
                                QStringLiteral("Admin password for sign-in (default: admin)."),
                                QStringLiteral("PW")};
    QCommandLineOption usb{
        QStringLiteral("usb"),
        QStringLiteral(
            "Play a device on a pseudo-terminal (the default when no other mode is chosen).")};
    QCommandLineOption receiver{
        QStringLiteral("receiver"),
        QStringLiteral("On the pseudo-terminal, play a wireless receiver instead of a device.")};
    QCommandLineOption silent{
        QStringLiteral("silent"),
        QStringLiteral("On the pseudo-terminal, never answer hello, as a port that is not a "
                       "device.")};
    QCommandLineOption lan{
        QStringLiteral("lan"),
        QStringLiteral("Play a device on the local network: HTTP admin API and TLS live feed.")};
    QCommandLineOption httpPort = portFor("http-port", "the HTTP admin API");
    QCommandLineOption feedPort = portFor("feed-port", "the TLS live feed");
    QCommandLineOption token{
        QStringLiteral("token"),
        QStringLiteral("Access token of the live feed (default: a random one, printed)."),
        QStringLiteral("TOKEN")};
    QCommandLineOption portal{
        QStringLiteral("portal"),
        QStringLiteral("Play the cloud portal with one device that follows the game and one "
                       "graphics output.")};
    QCommandLineOption portalPort = portFor("portal-port", "the portal");
    QCommandLineOption portalTls{
        QStringLiteral("portal-tls"),
        QStringLiteral("Serve the portal over HTTPS with the simulated device's self-signed "
                       "certificate (CN 127.0.0.1).")};
    QCommandLineOption account{
        QStringLiteral("account"),
        QStringLiteral("The portal account (default: demo@example.com:demo)."),
        QStringLiteral("EMAIL:PASSWORD"), QStringLiteral("demo@example.com:demo")};

    QList<QCommandLineOption> all() const
    {
        return {interval, sport,    password, usb,    receiver,   silent,    lan,
                httpPort, feedPort, token,    portal, portalPort, portalTls, account};
    }
};

// The value of a port option; std::nullopt (after saying why) when it is not a port.
std::optional<quint16> portOption(const QCommandLineParser& parser,
                                  const QCommandLineOption& option, QTextStream& err)
{
    bool ok = false;
    const uint port = parser.value(option).toUInt(&ok);
    if (!ok || port > 65535) {
        err << "vantorelle-sim: --" << option.names().constFirst()
            << " takes a port number from 0 to 65535\n";
        return std::nullopt;
    }
    return quint16(port);
}

// A small page that shows the game's score and refreshes itself, standing in for the portal's
// hosted overlay.
sim::HttpResponse graphicsPage(const sim::Game& game)
{
    const QString page =
        QStringLiteral("<!DOCTYPE html><html><head><meta http-equiv=\"refresh\" content=\"1\">"
                       "<style>body{margin:0;background:transparent;color:#fff;"
                       "font:bold 96px sans-serif;text-shadow:0 0 8px #000}</style></head>"
                       "<body>%1 - %2 &nbsp; P%3</body></html>")
            .arg(game.homeScore())
            .arg(game.awayScore())
            .arg(game.period());
    return sim::HttpResponse::text(page.toUtf8(), 200, "text/html; charset=utf-8");
}

// Everything that plays at once, around one game.
class Simulation
{
public:
    Simulation(const QCommandLineParser& parser, const Options& options, QTextStream& out,
               QTextStream& err)
        : m_parser(parser), m_options(options), m_out(out), m_err(err)
    {}

    // Starts every chosen mode and prints its addresses; false (after saying why) on failure.
    bool start(int intervalMs, sim::Game::Sport sport)
    {
        const bool usb = m_parser.isSet(m_options.usb) ||
                         (!m_parser.isSet(m_options.lan) && !m_parser.isSet(m_options.portal));
        if (usb) {
            m_usb = std::make_unique<sim::UsbDevice>();
            m_game = m_usb->game();
        } else {
            m_ownGame = std::make_unique<sim::Game>();
            m_game = m_ownGame.get();
        }
        m_game->setSport(sport);
        if (usb && !startUsb())
            return false;
        if (m_parser.isSet(m_options.lan) && !startLan())
            return false;
        if (m_parser.isSet(m_options.portal) && !startPortal())
            return false;
        m_game->start(intervalMs);
        return true;
    }

    void stop()
    {
        m_game->stop();
        if (m_usb)
            m_usb->unplug();
    }

private:
    bool startUsb()
    {
        m_usb->setRole(m_parser.isSet(m_options.receiver) ? sim::UsbDevice::Role::Receiver
                                                          : sim::UsbDevice::Role::Device);
        m_usb->setAnswersHello(!m_parser.isSet(m_options.silent));
        if (m_parser.isSet(m_options.password))
            m_usb->setPassword(m_parser.value(m_options.password));
        if (!m_usb->start())
            return fail("could not open a pseudo-terminal");
        // The bare path, as the first line, so that scripts can open it.
        m_out << m_usb->portPath() << Qt::endl;
        return true;
    }

    bool startLan()
    {
        const auto httpPort = portOption(m_parser, m_options.httpPort, m_err);
        const auto feedPort = portOption(m_parser, m_options.feedPort, m_err);
        if (!httpPort || !feedPort)
            return false;
        const QString token = m_parser.isSet(m_options.token)
                                  ? m_parser.value(m_options.token)
                                  : QString::number(QRandomGenerator::system()->generate64(), 16);

        m_lan = std::make_unique<sim::LanDevice>();
        m_lan->responder().setGame(m_game);
        if (m_parser.isSet(m_options.password))
            m_lan->responder().setPassword(m_parser.value(m_options.password));
        // The device hands out the same token its feed expects.
        m_lan->responder().setResult(QStringLiteral("ensureApiToken"),
                                     {{QStringLiteral("token"), token}});
        m_feed = std::make_unique<sim::FeedServer>();
        m_feed->setExpectedToken(token);
        QObject::connect(m_game, &sim::Game::envelopeReady, m_feed.get(),
                         &sim::FeedServer::broadcast);
        if (!m_lan->start(*httpPort))
            return fail("could not listen for the HTTP admin API");
        if (!m_feed->start(*feedPort))
            return fail("could not listen for the live feed");
        m_out << "admin: " << m_lan->address() << Qt::endl;
        m_out << "feed: 127.0.0.1:" << m_feed->serverPort() << Qt::endl;
        m_out << "token: " << token << Qt::endl;
        return true;
    }

    bool startPortal()
    {
        const auto port = portOption(m_parser, m_options.portalPort, m_err);
        if (!port)
            return false;
        const QString account = m_parser.value(m_options.account);
        const qsizetype colon = account.indexOf(QLatin1Char(':'));
        if (colon <= 0 || colon == account.size() - 1)
            return fail("--account takes EMAIL:PASSWORD");
        const QString email = account.left(colon);

        m_portal = std::make_unique<sim::PortalServer>();
        m_portal->addAccount(email, account.mid(colon + 1));
        m_portal->addDevice(email, {kPortalDeviceId, QStringLiteral("Simulated scoreboard")});
        m_portal->addOutput(email, {{QStringLiteral("id"), QStringLiteral("sim-output")},
                                    {QStringLiteral("name"), QStringLiteral("Score bug")},
                                    {QStringLiteral("share_token"), kShareToken},
                                    {QStringLiteral("device_id"), kPortalDeviceId},
                                    {QStringLiteral("width"), 1920},
                                    {QStringLiteral("height"), 1080}});
        m_portal->http().route("GET", QStringLiteral("/graphics/o/") + kShareToken,
                               [this](const sim::HttpRequest&) { return graphicsPage(*m_game); });
        QObject::connect(
            m_game, &sim::Game::envelopeReady, m_portal.get(), [this](const QJsonObject& envelope) {
                m_portal->setLiveData(kPortalDeviceId, m_game->sportName(),
                                      envelope.value(QLatin1String("fields")).toObject());
            });
        const bool started =
            m_parser.isSet(m_options.portalTls)
                ? m_portal->startTls(
                      QSslCertificate(QByteArray(sim::kFeedCertificatePem), QSsl::Pem),
                      QSslKey(QByteArray(sim::kFeedPrivateKeyPem), QSsl::Ec, QSsl::Pem,
                              QSsl::PrivateKey),
                      *port)
                : m_portal->start(*port);
        if (!started)
            return fail("could not listen for the portal");
        m_out << "portal: " << m_portal->baseUrl() << Qt::endl;
        m_out << "portal device: " << kPortalDeviceId << " (account " << email << ")" << Qt::endl;
        return true;
    }

    bool fail(const char* why)
    {
        m_err << "vantorelle-sim: " << why << '\n';
        return false;
    }

    const QCommandLineParser& m_parser;
    const Options& m_options;
    QTextStream& m_out;
    QTextStream& m_err;
    std::unique_ptr<sim::Game> m_ownGame; // when no pseudo-terminal device owns one
    sim::Game* m_game = nullptr;
    std::unique_ptr<sim::UsbDevice> m_usb;
    std::unique_ptr<sim::LanDevice> m_lan;
    std::unique_ptr<sim::FeedServer> m_feed;
    std::unique_ptr<sim::PortalServer> m_portal;
};

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vantorelle-sim"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral(
            "Plays a Vantorelle device and the cloud portal without hardware. Modes combine; one "
            "game feeds them all.\n"
            "--usb (default): prints the pseudo-terminal's path to open, alone on the first "
            "line.\n"
            "--lan: prints \"admin: HOST:PORT\", \"feed: HOST:PORT\" and \"token: TOKEN\".\n"
            "--portal: prints \"portal: URL\" and the device id; the graphics output's page is "
            "served at URL/graphics/o/%1.")
            .arg(kShareToken));
    parser.addHelpOption();
    const Options options;
    parser.addOptions(options.all());
    parser.process(app);

    QTextStream out(stdout);
    QTextStream err(stderr);
    bool intervalOk = false;
    const int intervalMs = parser.value(options.interval).toInt(&intervalOk);
    if (!intervalOk || intervalMs <= 0) {
        err << "vantorelle-sim: --interval takes a positive number of milliseconds\n";
        return 2;
    }
    const QString sportName = parser.value(options.sport);
    if (sportName != QLatin1String("hockey") && sportName != QLatin1String("basketball")) {
        err << "vantorelle-sim: --sport takes hockey or basketball\n";
        return 2;
    }
    if (!tools::quitOnSignals(app)) {
        err << "vantorelle-sim: could not install the signal handlers\n";
        return 1;
    }

    Simulation simulation(parser, options, out, err);
    if (!simulation.start(intervalMs, sportName == QLatin1String("basketball")
                                          ? sim::Game::Sport::Basketball
                                          : sim::Game::Sport::Hockey))
        return 1;
    const int status = app.exec();
    simulation.stop();
    return status;
}
