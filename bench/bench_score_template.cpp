// Cost of rendering a score template against a model of 20 fields: the default template and a
// longer one with ten placeholders between plain text.
#include "live_data.h"
#include "score_template.h"

#include <QJsonObject>

#include <benchmark/benchmark.h>

using namespace vantorelle;

namespace {

void fill(LiveData& live)
{
    QJsonObject fields;
    for (int i = 0; i < 18; ++i)
        fields.insert(QStringLiteral("field_%1").arg(i), i);
    fields.insert("home_score", 54);
    fields.insert("away_score", 49);
    live.apply({{"sport", "basketball"}, {"fields", fields}});
}

void renderTemplate(benchmark::State& state, const QString& templateText)
{
    LiveData live;
    fill(live);
    for (auto _ : state)
        benchmark::DoNotOptimize(renderScoreTemplate(templateText, &live));
    state.SetItemsProcessed(state.iterations());
}

void renderDefault(benchmark::State& state)
{
    renderTemplate(state, DefaultScoreTemplate);
}
BENCHMARK(renderDefault);

void renderTenPlaceholders(benchmark::State& state)
{
    renderTemplate(state, "{sport}: HOME {home_score} ({field_1} fouls, {field_2} TO) - "
                          "AWAY {away_score} ({field_3} fouls, {field_4} TO) | Q{field_5} "
                          "{field_6} | {field_7} {unknown}");
}
BENCHMARK(renderTenPlaceholders);

} // namespace

BENCHMARK_MAIN();
