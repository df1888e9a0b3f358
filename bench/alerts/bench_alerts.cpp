// The evaluation every status line and scan ends with, when it finds nothing new: three
// providers of two windows each, all past two thresholds already recorded. It must stay near a
// millisecond and never touch D-Bus (no bus is set up here: a delivery would show as a failure
// in the counters).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>

#include "gaugepoint/alerts/QuotaAlerts.hpp"

namespace {

using namespace gaugepoint;

QuotaSnapshot busySnapshot(Date now) {
    QuotaSnapshot snapshot;
    snapshot.generatedAt = now;
    for (const char* id : {"claude", "codex", "gemini"}) {
        ProviderQuota provider;
        provider.id = id;
        provider.displayName = id;
        provider.updatedAt = now;
        for (const auto& [window, minutes] : {std::pair{"five_hour", 300}, std::pair{"seven_day", 10080}}) {
            QuotaWindow w;
            w.id = window;
            w.usedPercent = 85;
            w.windowMinutes = minutes;
            w.resetsAt = now + std::chrono::minutes(minutes - 5);  // too early for a pace
            w.semantic = QuotaWindowSemantic::rollingSession;
            provider.windows.push_back(w);
        }
        snapshot.providers.push_back(provider);
    }
    return snapshot;
}

void BM_EvaluationWithNothingNew(benchmark::State& state) {
    const auto dir = std::filesystem::temp_directory_path() / ("gaugepoint-bench-alerts-" + std::to_string(::getpid()));
    QuotaSyncConfiguration configuration;
    configuration.appGroupDirectory = dir;
    configuration.sourceID = "machine-bench";
    const Date now = Clock().now();
    const auto snapshot = busySnapshot(now);
    QuotaAlerts::evaluate(configuration, snapshot, now, "en");  // installed: records what is crossed
    std::int64_t fired = 0;
    for (auto _ : state) fired += std::int64_t(QuotaAlerts::evaluate(configuration, snapshot, now, "en").fired.size());
    state.counters["fired"] = double(fired);
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_EvaluationWithNothingNew)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
