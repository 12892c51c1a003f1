// The sharing server under a crowd: 500 clients on loopback following a feed of 20 changes a
// second. This process runs the server, fed by a LiveData as the plug-in feeds it; the clients
// run in a second process (this program started with --clients-of; more with
// --client-processes), so that reading 10,000 lines a second does not share an event loop with
// the server that writes them. Each envelope carries its sequence number and the monotonic clock
// at the moment it was applied; every client checks that the numbers arrive one after the other
// and records how long each line took.
//
//   bench_hosted_server_load [--clients N] [--rate PER_SECOND] [--seconds S]
//                            [--client-processes N] [--json]
#include "hosted_server.h"
#include "live_data.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

using namespace vantorelle;

namespace {

// CLOCK_MONOTONIC on Linux: one clock for both processes.
qint64 nowMicroseconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A scoreboard's 20 fields: the two the clients check, and 18 that move like a game's.
QJsonObject envelope(int seq)
{
    QJsonObject fields;
    fields.insert("change", QString::number(seq)); // "seq" is the envelope's own, not a field
    fields.insert("sent_us", QString::number(nowMicroseconds()));
    const int tenths = 6000 - seq;
    fields.insert("clock", QStringLiteral("%1:%2.%3")
                               .arg(tenths / 600)
                               .arg(tenths / 10 % 60, 2, 10, QLatin1Char('0'))
                               .arg(tenths % 10));
    for (int i = 0; i < 17; ++i)
        fields.insert(QStringLiteral("field_%1").arg(i, 2, 10, QLatin1Char('0')),
                      (seq / (i + 1)) % 100);
    return {{"type", "state"}, {"sport", "basketball"}, {"fields", fields}};
}

// A text field's number from a snapshot line, found without parsing the line: 500 clients in
// one process parsing every line would add their own parsing time to the latency measured.
qint64 fieldNumber(QByteArrayView line, QByteArrayView name)
{
    const QByteArray key = '"' + name.toByteArray() + "\":\"";
    const qsizetype at = line.indexOf(key);
    if (at < 0)
        return -1;
    const QByteArrayView rest = line.sliced(at + key.size());
    return rest.first(qMax<qsizetype>(0, rest.indexOf('"'))).toLongLong();
}

struct Client
{
    std::unique_ptr<QTcpSocket> socket;
    QByteArray buffer;
    int lines = 0;
    int lastSeq = 0;
};

struct Results
{
    qint64 delivered = 0;
    qint64 outOfOrder = 0;
    int disconnected = 0;
    std::vector<qint64> latencies; // microseconds
};

double percentileMs(const std::vector<qint64>& sorted, double fraction)
{
    if (sorted.empty())
        return 0;
    const size_t index = std::min(sorted.size() - 1, size_t(fraction * double(sorted.size())));
    return double(sorted[index]) / 1000.0;
}

// The client side: connects `count` clients, says "ready" once each has its greeting, then
// follows the lines until every client has seen `total` or the deadline passes, and prints one
// JSON object with what arrived.
int runClients(quint16 port, int count, int total, int deadlineSeconds)
{
    std::vector<Client> clients(static_cast<size_t>(count));
    Results results;
    results.latencies.reserve(size_t(count) * size_t(total));
    int greeted = 0;
    int finished = 0;

    auto readLines = [&](Client& client) {
        const qint64 arrived = nowMicroseconds();
        client.buffer.append(client.socket->readAll());
        qsizetype from = 0;
        for (qsizetype end; (end = client.buffer.indexOf('\n', from)) >= 0; from = end + 1) {
            const QByteArrayView line = QByteArrayView(client.buffer).sliced(from, end - from);
            if (client.lines++ == 0)
                ++greeted;
            const int seq = int(fieldNumber(line, "change"));
            if (seq < 1 || seq > total)
                continue; // the greeting, before the first change
            ++results.delivered;
            if (seq != client.lastSeq + 1)
                ++results.outOfOrder;
            client.lastSeq = seq;
            results.latencies.push_back(arrived - fieldNumber(line, "sent_us"));
            if (seq == total)
                ++finished;
        }
        client.buffer.remove(0, from);
    };

    // In batches, each greeted before the next connects: a greeting shows the server accepted
    // the connection, so its listen backlog never overflows into retried handshakes.
    constexpr int kBatch = 25;
    for (int first = 0; first < count; first += kBatch) {
        const int last = std::min(count, first + kBatch);
        for (int i = first; i < last; ++i) {
            Client& client = clients[size_t(i)];
            client.socket = std::make_unique<QTcpSocket>();
            QObject::connect(client.socket.get(), &QTcpSocket::readyRead,
                             [&readLines, &client] { readLines(client); });
            QObject::connect(client.socket.get(), &QTcpSocket::disconnected,
                             [&results] { ++results.disconnected; });
            client.socket->connectToHost(QStringLiteral("127.0.0.1"), port);
        }
        const qint64 greetingDeadline = nowMicroseconds() + 10'000'000;
        while (greeted < last && nowMicroseconds() < greetingDeadline)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
        if (greeted < last) {
            std::fprintf(stderr, "only %d of %d clients were greeted\n", greeted, last);
            return 1;
        }
    }
    std::printf("ready\n");
    std::fflush(stdout);

    const qint64 deadline = nowMicroseconds() + qint64(deadlineSeconds) * 1'000'000;
    while (finished + results.disconnected < count && nowMicroseconds() < deadline)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);

    QJsonArray latencies;
    for (const qint64 latency : results.latencies)
        latencies.append(latency);
    const QJsonObject report{
        {"clients", count},
        {"expected", qint64(count) * total},
        {"delivered", results.delivered},
        {"out_of_order", results.outOfOrder},
        {"disconnected", results.disconnected},
        {"latencies_us", latencies},
    };
    std::printf("%s\n", QJsonDocument(report).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption clientsOption("clients", "Clients that follow the server.", "N",
                                           "500");
    const QCommandLineOption rateOption("rate", "Changes a second.", "N", "20");
    const QCommandLineOption secondsOption("seconds", "How long the feed runs.", "S", "10");
    const QCommandLineOption processesOption("client-processes",
                                             "Processes the clients are spread over.", "N", "1");
    const QCommandLineOption jsonOption("json", "Print the results as one JSON object.");
    const QCommandLineOption clientsOfOption("clients-of",
                                             "Run the clients of the server on this port.", "PORT");
    const QCommandLineOption totalOption("total", "Changes the clients wait for.", "N", "0");
    parser.addOptions({clientsOption, rateOption, secondsOption, processesOption, jsonOption,
                       clientsOfOption, totalOption});
    parser.process(app);
    const int clients = parser.value(clientsOption).toInt();
    const int rate = parser.value(rateOption).toInt();
    const int seconds = parser.value(secondsOption).toInt();
    const int processes = parser.value(processesOption).toInt();
    if (clients < 1 || rate < 1 || rate > 1000 || seconds < 1 || processes < 1 ||
        processes > clients) {
        std::fprintf(stderr, "--clients, --rate (1..1000), --seconds and --client-processes (up to "
                             "--clients) must be positive\n");
        return 2;
    }
    if (parser.isSet(clientsOfOption))
        return runClients(quint16(parser.value(clientsOfOption).toUInt()), clients,
                          parser.value(totalOption).toInt(), seconds + 10);

    LiveData live;
    live.apply(envelope(0));
    HostedServer server(&live);
    // As the plug-in wires them: every change goes out to every client.
    QObject::connect(&live, &LiveData::changed, &server, &HostedServer::broadcast);
    QString error;
    if (!server.start(0, false, &error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return 1;
    }

    const int total = rate * seconds;
    // A client process polls all its sockets whenever one has data; more processes spread that
    // over more cores, but on two cores they compete with the server and one process measures
    // less of the harness.
    std::vector<std::unique_ptr<QProcess>> sides;
    int ready = 0;
    int running = processes;
    std::vector<QByteArray> reports;
    int sent = 0;
    QTimer feed;
    feed.setTimerType(Qt::PreciseTimer);
    const qint64 interval = 1'000'000 / rate;
    qint64 feedStart = 0;
    // Each change at its own time from the start, so a late tick does not delay the rest.
    feed.setSingleShot(true);
    QObject::connect(&feed, &QTimer::timeout, [&] {
        while (sent < total && nowMicroseconds() >= feedStart + sent * interval)
            live.apply(envelope(++sent));
        if (sent < total)
            feed.start(int((feedStart + sent * interval - nowMicroseconds()) / 1000 + 1));
    });
    for (int i = 0; i < processes; ++i) {
        sides.push_back(std::make_unique<QProcess>());
        QProcess* side = sides.back().get();
        side->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QObject::connect(side, &QProcess::readyReadStandardOutput, [&, side] {
            while (side->canReadLine()) {
                const QByteArray line = side->readLine().trimmed();
                if (line != "ready") {
                    reports.push_back(line);
                } else if (++ready == processes) {
                    feedStart = nowMicroseconds() - interval; // the first change at once
                    feed.start(0);
                }
            }
        });
        QObject::connect(side, &QProcess::finished, [&] {
            if (--running == 0)
                QCoreApplication::quit();
        });
        const int share = clients / processes + (i < clients % processes ? 1 : 0);
        side->start(QCoreApplication::applicationFilePath(),
                    {"--clients-of", QString::number(server.serverPort()), "--clients",
                     QString::number(share), "--total", QString::number(total), "--seconds",
                     QString::number(seconds)});
    }
    app.exec();
    QJsonObject result{{"clients", clients}, {"rate", rate}, {"seconds", seconds}, {"sent", sent}};
    qint64 expected = 0;
    qint64 delivered = 0;
    qint64 outOfOrder = 0;
    int disconnected = 0;
    std::vector<qint64> latencies;
    for (const auto& side : sides) {
        if (side->exitCode() != 0) {
            std::fprintf(stderr, "a client process failed (exit code %d)\n", side->exitCode());
            return 1;
        }
    }
    for (const QByteArray& report : reports) {
        const QJsonObject part = QJsonDocument::fromJson(report).object();
        expected += part.value("expected").toInteger();
        delivered += part.value("delivered").toInteger();
        outOfOrder += part.value("out_of_order").toInteger();
        disconnected += part.value("disconnected").toInt();
        for (const QJsonValue latency : part.value("latencies_us").toArray())
            latencies.push_back(latency.toInteger());
    }
    if (int(reports.size()) != processes) {
        std::fprintf(stderr, "%d of %d client processes reported\n", int(reports.size()),
                     processes);
        return 1;
    }
    std::sort(latencies.begin(), latencies.end());
    result.insert("expected", expected);
    result.insert("delivered", delivered);
    result.insert("out_of_order", outOfOrder);
    result.insert("disconnected", disconnected);
    result.insert("client_processes", processes);
    result.insert("p50_ms", percentileMs(latencies, 0.50));
    result.insert("p99_ms", percentileMs(latencies, 0.99));
    result.insert("max_ms", latencies.empty() ? 0.0 : double(latencies.back()) / 1000.0);
    if (parser.isSet(jsonOption)) {
        std::printf("%s\n", QJsonDocument(result).toJson(QJsonDocument::Compact).constData());
        return 0;
    }
    std::printf("%d clients in %d processes, %d changes/s for %d s\n", clients, processes, rate,
                seconds);
    std::printf("delivered %lld / %lld, out of order %lld, disconnected %d\n",
                result.value("delivered").toInteger(), result.value("expected").toInteger(),
                result.value("out_of_order").toInteger(), result.value("disconnected").toInt());
    std::printf("latency p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
                result.value("p50_ms").toDouble(), result.value("p99_ms").toDouble(),
                result.value("max_ms").toDouble());
    return 0;
}
