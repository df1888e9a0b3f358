// Model name resolution and pricing. Targets: a cached lookup under 100 ns, a first-time
// resolution under 20 us, one million session descriptors priced in under 1 s on one core.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "gaugepoint/pricing/QuotaModelCostEstimator.hpp"

namespace {

using namespace gaugepoint;

// The shipped catalogue, whatever cached copies the machine has.
void useShippedCatalogue() {
    static const bool once = [] {
        QuotaSyncConfiguration configuration;
        configuration.appGroupDirectory = std::filesystem::temp_directory_path() / "gaugepoint-bench-no-cached-catalogue";
        QuotaMetadataCatalog::useConfiguration(configuration);
        return true;
    }();
    (void)once;
}

void BM_ResolvedModelCachedHit(benchmark::State& state) {
    useShippedCatalogue();
    QuotaMetadataCatalog::resolvedModel("claude-sonnet-4-5-20250929");
    for (auto _ : state) benchmark::DoNotOptimize(QuotaMetadataCatalog::resolvedModel("claude-sonnet-4-5-20250929"));
}
BENCHMARK(BM_ResolvedModelCachedHit);

void BM_ResolvedModelCachedMiss(benchmark::State& state) {
    useShippedCatalogue();
    QuotaMetadataCatalog::resolvedModel("claude-nebula-preview-20261015");
    for (auto _ : state) benchmark::DoNotOptimize(QuotaMetadataCatalog::resolvedModel("claude-nebula-preview-20261015"));
}
BENCHMARK(BM_ResolvedModelCachedMiss);

// Every iteration a name never seen before, so every candidate key is built and tried.
void resolveFresh(benchmark::State& state, const std::string& prefix, const std::string& suffix) {
    useShippedCatalogue();
    std::size_t i = 0;
    for (auto _ : state) {
        const std::string name = prefix + std::to_string(i++) + suffix;
        benchmark::DoNotOptimize(QuotaMetadataCatalog::resolvedModel(name, "Nebula Preview (1M context)"));
    }
}
void BM_ResolvedModelFirstTimeMiss(benchmark::State& state) {
    resolveFresh(state, "claude-3-5-nebula-", "-20261015-high-thinking");
}
BENCHMARK(BM_ResolvedModelFirstTimeMiss);
void BM_ResolvedModelFirstTimeHit(benchmark::State& state) {
    useShippedCatalogue();
    std::size_t i = 0;
    for (auto _ : state) {
        // A dated id of a known model with a tag: found after rewrites.
        const std::string name = "us.anthropic.claude-4-5-sonnet-" + std::to_string(20250000 + (i++ % 10000000)) + "-v1:0";
        benchmark::DoNotOptimize(QuotaMetadataCatalog::resolvedModel(name));
    }
}
BENCHMARK(BM_ResolvedModelFirstTimeHit);

std::vector<QuotaSessionDescriptor> descriptors(std::size_t count) {
    const char* models[] = {"claude-sonnet-4-5-20250929", "claude-opus-4-1-20250805", "gpt-5-codex",
                            "gemini-2.5-pro", "claude-nebula-preview-20261015"};
    std::vector<QuotaSessionDescriptor> list(count);
    for (std::size_t i = 0; i < count; ++i) {
        auto& d = list[i];
        d.id = std::to_string(i);
        d.provider = {"claude", "Claude"};
        for (std::size_t m = 0; m < 3; ++m) {
            const std::int64_t n = std::int64_t(1000 + i % 977 + m);
            d.topModels.push_back({models[(i + m) % 5], "", 1, 4, {n, n / 3, n * 20, n * 2, std::nullopt}});
            d.tokenUsage += d.topModels.back().tokenUsage;
        }
    }
    return list;
}

void BM_PriceDescriptors(benchmark::State& state) {
    useShippedCatalogue();
    const auto list = descriptors(std::size_t(state.range(0)));
    for (auto _ : state) {
        double total = 0;
        for (const auto& d : list) {
            const auto metrics = QuotaModelCostEstimator::costMetrics(d);
            total += QuotaModelCostEstimator::resolvedCostUSD(d) + metrics.estimatedSavingsUSD;
        }
        benchmark::DoNotOptimize(total);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_PriceDescriptors)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
