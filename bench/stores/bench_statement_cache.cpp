// Small repeated store operations, the kind a widget or a watch loop runs every refresh: each
// is one short statement on a small table, so preparing it is a large share of its time.
//   loadRecord:    QuotaSourceSnapshotStore::loadRecord of one source among three;
//   dailySummary:  QuotaSessionTokenLedger::dailySummary of a week for one source;
//   messageCount:  QuotaSessionCatalogStore::messageCount of one session;
//   inboxContains: QuotaNotifyInboxStore::contains of one envelope among fifty.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>

#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace {

using namespace gaugepoint;

const Date kNow = dateFromSeconds(1795219200);  // 2026-11-21T00:00:00Z

QuotaSyncConfiguration configurationIn(const char* name) {
    const auto dir = std::filesystem::temp_directory_path() / ("gaugepoint-bench-cache-" + std::to_string(::getpid())) / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    QuotaSyncConfiguration c;
    c.appGroupDirectory = dir;
    c.clock = gaugepoint::Clock::fixedAt(kNow);
    return c;
}

QuotaSnapshot snapshotOf(const std::string& source) {
    QuotaSnapshot s;
    s.generatedAt = kNow;
    s.source = QuotaSnapshotSource{source, source, "host", "Linux"};
    ProviderQuota p;
    p.id = "claude";
    p.displayName = "Claude";
    p.dailyTokenUsage.emplace();
    for (int d = 0; d < 7; ++d) p.dailyTokenUsage->push_back({"2026-11-1" + std::to_string(d), 1.5, 1000 + d});
    s.providers.push_back(p);
    return s;
}

void BM_LoadRecord(benchmark::State& state) {
    const QuotaSourceSnapshotStore store{configurationIn("sources")};
    for (const char* source : {"mac-a", "mac-b", "mac-c"}) store.upsert(snapshotOf(source), std::nullopt, QuotaSourceSyncChannel::kvs);
    for (auto _ : state) benchmark::DoNotOptimize(store.loadRecord("mac-b"));
}
BENCHMARK(BM_LoadRecord)->Unit(benchmark::kMicrosecond);

void BM_DailySummary(benchmark::State& state) {
    const QuotaSessionTokenLedger ledger{configurationIn("ledger")};
    for (const char* source : {"mac-a", "mac-b"}) ledger.upsert(snapshotOf(source));
    for (auto _ : state) benchmark::DoNotOptimize(ledger.dailySummary("mac-a", 30));
}
BENCHMARK(BM_DailySummary)->Unit(benchmark::kMicrosecond);

void BM_MessageCount(benchmark::State& state) {
    const QuotaSessionCatalogStore catalog{configurationIn("catalog")};
    std::vector<QuotaSessionMessage> messages(20);
    for (int i = 0; i < 20; ++i) {
        messages[i].id = "m" + std::to_string(i);
        messages[i].role = QuotaSessionRole::user;
        messages[i].text = "hello";
    }
    catalog.replaceMessagesForSession("mac-a", "session-1", messages);
    for (auto _ : state) benchmark::DoNotOptimize(catalog.messageCount("mac-a", "session-1"));
}
BENCHMARK(BM_MessageCount)->Unit(benchmark::kMicrosecond);

void BM_InboxContains(benchmark::State& state) {
    const QuotaNotifyInboxStore inbox{configurationIn("inbox")};
    std::vector<QuotaNotifyArchiveEntry> entries(50);
    for (int i = 0; i < 50; ++i) {
        entries[i].envelopeID = "env-" + std::to_string(i);
        entries[i].threadID = "thread";
        entries[i].createdAt = kNow - std::chrono::minutes(i);
        entries[i].archivedAt = entries[i].createdAt;
        entries[i].origin = "local";
    }
    inbox.upsert(entries);
    for (auto _ : state) benchmark::DoNotOptimize(inbox.contains("env-25"));
}
BENCHMARK(BM_InboxContains)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
