// Cost of applying one feed envelope of 20 fields, when every value changed and when none did
// (a stopped clock, heartbeats), and of building the snapshot line that goes to every client.
// Anchor: parsing the same envelope from its JSON text, which any consumer of the feed does
// before it can apply anything.
#include "live_data.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <benchmark/benchmark.h>

using vantorelle::LiveData;

namespace {

constexpr int kFields = 20;

QJsonObject envelope(int base)
{
    QJsonObject fields;
    for (int i = 0; i < kFields; ++i) {
        const QString name = QStringLiteral("field_%1").arg(i, 2, 10, QLatin1Char('0'));
        // Mixed value kinds, as a scoreboard sends them.
        if (i % 3 == 0)
            fields.insert(name, QStringLiteral("%1:%2").arg(base % 60).arg(i));
        else
            fields.insert(name, base + i + (i % 3 == 1 ? 0.0 : 0.5));
    }
    return {{"type", "state"}, {"sport", "basketball"}, {"seq", base}, {"fields", fields}};
}

void applyChanged(benchmark::State& state)
{
    LiveData live;
    const QJsonObject envelopes[2] = {envelope(1), envelope(2)};
    int next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(live.apply(envelopes[next]));
        next ^= 1;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(applyChanged);

void applyUnchanged(benchmark::State& state)
{
    LiveData live;
    const QJsonObject same = envelope(1);
    live.apply(same);
    for (auto _ : state)
        benchmark::DoNotOptimize(live.apply(same));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(applyUnchanged);

void parseEnvelope(benchmark::State& state)
{
    const QByteArray text = QJsonDocument(envelope(1)).toJson(QJsonDocument::Compact);
    for (auto _ : state)
        benchmark::DoNotOptimize(QJsonDocument::fromJson(text).object());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(parseEnvelope);

void snapshotLine(benchmark::State& state)
{
    LiveData live;
    live.apply(envelope(1));
    for (auto _ : state)
        benchmark::DoNotOptimize(live.toJsonLine());
}
BENCHMARK(snapshotLine);

} // namespace

BENCHMARK_MAIN();
