// One broadcast to 100 clients connected over loopback, timed until every client has read its
// line. Server and clients share this thread's event loop, as they would share a machine.
#include "hosted_server.h"
#include "live_data.h"

#include <QCoreApplication>
#include <QJsonObject>
#include <QTcpSocket>

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

using namespace vantorelle;

namespace {

constexpr int kClients = 100;

struct Clients
{
    std::vector<std::unique_ptr<QTcpSocket>> sockets;
    int linesRead = 0;

    bool connect(quint16 port)
    {
        for (int i = 0; i < kClients; ++i) {
            auto socket = std::make_unique<QTcpSocket>();
            QTcpSocket* raw = socket.get();
            QObject::connect(raw, &QTcpSocket::readyRead,
                             [this, raw] { linesRead += int(raw->readAll().count('\n')); });
            raw->connectToHost(QStringLiteral("127.0.0.1"), port);
            sockets.push_back(std::move(socket));
        }
        return waitForLines(kClients); // every client's greeting
    }

    bool waitForLines(int lines)
    {
        while (linesRead < lines) {
            for (const auto& socket : sockets) {
                if (socket->state() == QAbstractSocket::UnconnectedState)
                    return false;
            }
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }
};

void broadcastToClients(benchmark::State& state)
{
    LiveData live;
    QJsonObject fields;
    for (int i = 0; i < 20; ++i)
        fields.insert(QStringLiteral("field_%1").arg(i), i);
    live.apply({{"sport", "basketball"}, {"fields", fields}});

    HostedServer server(&live);
    if (!server.start(0, false)) {
        state.SkipWithError("could not listen on 127.0.0.1");
        return;
    }
    Clients clients;
    if (!clients.connect(server.serverPort()) || server.clientCount() != kClients) {
        state.SkipWithError("clients did not connect");
        return;
    }
    for (auto _ : state) {
        clients.linesRead = 0;
        server.broadcast();
        if (!clients.waitForLines(kClients)) {
            state.SkipWithError("a client was disconnected");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * kClients);
}
BENCHMARK(broadcastToClients)->UseRealTime()->Unit(benchmark::kMicrosecond);

// A client that fills the pending-byte cap with empty lines and then asks for the snapshot: the
// cost of splitting one full receive buffer into lines.
void receiveFullBufferOfLines(benchmark::State& state)
{
    LiveData live;
    HostedServer server(&live);
    if (!server.start(0, false)) {
        state.SkipWithError("could not listen on 127.0.0.1");
        return;
    }
    const QByteArray get = "get\n";
    const QByteArray request = QByteArray(HostedServer::MaxPendingBytes - get.size(), '\n') + get;
    QTcpSocket client;
    int linesRead = 0;
    QObject::connect(&client, &QTcpSocket::readyRead,
                     [&] { linesRead += int(client.readAll().count('\n')); });
    auto readLines = [&](int lines) {
        while (linesRead < lines && client.state() != QAbstractSocket::UnconnectedState)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        return linesRead >= lines;
    };
    client.connectToHost(QStringLiteral("127.0.0.1"), server.serverPort());
    if (!readLines(1)) {
        state.SkipWithError("no greeting");
        return;
    }
    for (auto _ : state) {
        linesRead = 0;
        client.write(request);
        if (!readLines(1)) {
            state.SkipWithError("the server dropped the client");
            return;
        }
    }
}
BENCHMARK(receiveFullBufferOfLines)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
