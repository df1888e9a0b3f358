// The notification inbox's list paths over 100,000 entries:
//   paging through the whole inbox, 50 entries a page, by cursor (keyset) and by offset;
//   the first page of the list served from the page cache, beside the same page read from SQLite.
// The natural limit of a paging pass is raw SQLite stepping the same statement over the same file
// with one prepared statement and reading every column without building entries; "x_raw" is the
// store's time as a multiple of it, from the same run.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>

#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"

namespace {

using namespace gaugepoint;
using SteadyClock = std::chrono::steady_clock;

constexpr int kEntries = 100'000;
constexpr std::int64_t kPage = QuotaNotifyInboxStore::defaultPageSize;
constexpr double kStart = 1795219200;  // 2026-11-21T00:00:00Z

// Notifications as the companion files them: a month of threshold and reset messages from six
// providers, several per second at busy moments (so times repeat), a fifth with cold fields.
std::vector<QuotaNotifyArchiveEntry> inboxEntries() {
    const char* providers[] = {"claude", "codex", "gemini", "cursor", "copilot", "openrouter"};
    const char* categories[] = {"quota", "reset", "general", "billing"};
    std::mt19937 random(7);
    std::vector<QuotaNotifyArchiveEntry> list;
    double at = kStart - 30 * 86400;
    for (int i = 0; i < kEntries; ++i) {
        if (random() % 3 == 0) at += double(random() % 50);  // two in three share the previous time
        const std::string provider = providers[i % 6];
        QuotaNotifyArchiveEntry e;
        e.envelopeID = "4F1C" + std::to_string(100000 + i) + "-" + std::to_string(random() % 100000);
        e.threadID = provider + "-5h";
        e.createdAt = dateFromSeconds(at);
        e.archivedAt = dateFromSeconds(at + 2);
        e.origin = i % 4 ? "local" : "mailbox";
        e.title = provider + ": " + std::to_string(random() % 100) + "% of the 5h window left";
        e.body = "Resets in 2h 14m. You have used most of this window's allowance; heavy prompts may be refused "
                 "until it refreshes.";
        e.sourceID = "3F2A9C1E-mac-studio";
        e.sourceName = "Mac Studio";
        e.providerID = provider;
        e.providerDisplayName = provider;
        e.groupID = "thresholds";
        e.category = categories[i % 4];
        e.level = i % 7 ? "warning" : "critical";
        e.deliveredVia = {"banner", "mailbox"};
        if (i % 5 == 0) e.coldExt = NotifyInboxColdExt{"https://example.invalid/usage", {}, "default", 3, false, {}, {}, {}};
        list.push_back(std::move(e));
    }
    return list;
}

// One inbox of kEntries entries for the whole run.
const QuotaNotifyInboxStore& filledStore() {
    static const QuotaNotifyInboxStore store = [] {
        const auto dir = std::filesystem::temp_directory_path() / ("gaugepoint-bench-notify-" + std::to_string(::getpid()));
        std::filesystem::remove_all(dir);
        QuotaSyncConfiguration configuration;
        configuration.appGroupDirectory = dir;
        configuration.clock = gaugepoint::Clock::fixedAt(dateFromSeconds(kStart));
        QuotaNotifyInboxStore s{configuration};
        s.upsert(inboxEntries());
        s.walCheckpoint();
        return s;
    }();
    return store;
}

double secondsSince(SteadyClock::time_point start) {
    return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

// Raw SQLite: the keyset statement stepped page by page, every column read, nothing built.
double rawCursorPass(const std::filesystem::path& file, std::int64_t& rows) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr);
    sqlite3_exec(db, "PRAGMA mmap_size=268435456", nullptr, nullptr, nullptr);
    sqlite3_stmt* first = nullptr;
    sqlite3_stmt* next = nullptr;
    const std::string columns =
        "SELECT envelope_id, thread_id, created_at, archived_at, origin,\ntitle, subtitle, body, source_id, source_name, "
        "source_line,\nprovider_id, provider_display_name, group_id, icon_hint,\ncategory, level, is_archive,\n"
        "pairing_token, mailbox_record_name, delivered_via, cold_ext";
    sqlite3_prepare_v2(db, (columns + " FROM notify_inbox ORDER BY created_at DESC, envelope_id DESC LIMIT ?").c_str(), -1,
                       &first, nullptr);
    sqlite3_prepare_v2(db, (columns + " FROM notify_inbox\nWHERE created_at < ? OR (created_at = ? AND envelope_id < ?)\n"
                                      "ORDER BY created_at DESC, envelope_id DESC LIMIT ?").c_str(),
                       -1, &next, nullptr);
    const auto start = SteadyClock::now();
    rows = 0;
    sqlite3_bind_int64(first, 1, kPage);
    sqlite3_stmt* page = first;
    while (true) {
        std::int64_t inPage = 0;
        double lastAt = 0;
        std::string lastID;
        while (sqlite3_step(page) == SQLITE_ROW) {
            ++inPage;
            for (int c = 0; c < 22; ++c) benchmark::DoNotOptimize(sqlite3_column_text(page, c));
            lastAt = sqlite3_column_double(page, 2);
            lastID = reinterpret_cast<const char*>(sqlite3_column_text(page, 0));
        }
        sqlite3_reset(page);
        rows += inPage;
        if (inPage < kPage) break;
        page = next;
        sqlite3_bind_double(next, 1, lastAt);
        sqlite3_bind_double(next, 2, lastAt);
        sqlite3_bind_text(next, 3, lastID.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(next, 4, kPage);
    }
    const double seconds = secondsSince(start);
    sqlite3_finalize(first);
    sqlite3_finalize(next);
    sqlite3_close_v2(db);
    return seconds;
}

// Times of one pass through the whole inbox: the best pass, and the best first and last page.
struct PassTimes {
    double pass = 1e300, firstPage = 1e300, lastPage = 1e300;
};

void reportPass(benchmark::State& state, const PassTimes& best) {
    state.counters["pass_ms"] = best.pass * 1e3;
    state.counters["us_per_page"] = best.pass * 1e6 / (double(kEntries) / kPage);
    state.counters["first_page_us"] = best.firstPage * 1e6;
    state.counters["last_page_us"] = best.lastPage * 1e6;
}

// Pages through the store with `loadPage(position)`, where position is the page's index; checks
// that every entry came once.
template <class LoadPage>
PassTimes pagePass(benchmark::State& state, LoadPage&& loadPage) {
    PassTimes times;
    const auto start = SteadyClock::now();
    std::int64_t seen = 0;
    for (std::int64_t index = 0;; ++index) {
        const auto pageStart = SteadyClock::now();
        const std::int64_t size = loadPage(index);
        const double pageTime = secondsSince(pageStart);
        if (index == 0) times.firstPage = pageTime;
        if (index == kEntries / kPage - 1) times.lastPage = pageTime;
        seen += size;
        if (size < kPage) break;
    }
    times.pass = secondsSince(start);
    if (seen != kEntries) state.SkipWithError("paging lost or repeated entries");
    return times;
}

void keepBest(PassTimes& best, const PassTimes& pass) {
    best.pass = std::min(best.pass, pass.pass);
    best.firstPage = std::min(best.firstPage, pass.firstPage);
    best.lastPage = std::min(best.lastPage, pass.lastPage);
}

void BM_PageThroughByCursor(benchmark::State& state) {
    const auto& store = filledStore();
    PassTimes best;
    double bestRaw = 1e300;
    for (auto _ : state) {
        std::optional<NotifyInboxCursor> cursor;
        const PassTimes pass = pagePass(state, [&](std::int64_t) {
            const auto page = store.loadPage(cursor, kPage);
            if (!page.empty()) cursor = NotifyInboxCursor::after(page.back());
            return std::int64_t(page.size());
        });
        std::int64_t rawRows = 0;
        bestRaw = std::min(bestRaw, rawCursorPass(store.databaseURL(), rawRows));
        if (rawRows != kEntries) state.SkipWithError("raw paging lost entries");
        state.SetIterationTime(pass.pass);
        keepBest(best, pass);
    }
    reportPass(state, best);
    state.counters["raw_pass_ms"] = bestRaw * 1e3;
    state.counters["x_raw"] = best.pass / bestRaw;
}
BENCHMARK(BM_PageThroughByCursor)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// A page deep in the list costs as many skipped rows as its offset, each read from the table:
// one pass takes about a minute, so it runs once.
void BM_PageThroughByOffset(benchmark::State& state) {
    const auto& store = filledStore();
    PassTimes best;
    for (auto _ : state) {
        const PassTimes pass = pagePass(state, [&](std::int64_t index) {
            return std::int64_t(store.loadPage(index * kPage, kPage).size());
        });
        state.SetIterationTime(pass.pass);
        keepBest(best, pass);
    }
    reportPass(state, best);
}
BENCHMARK(BM_PageThroughByOffset)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The list's first page as a refresh asks for it: from the cache, and from SQLite (offset 0
// reads the same rows through a statement the cache does not serve).
void BM_FirstPageFromCache(benchmark::State& state) {
    const auto& store = filledStore();
    if (store.loadPage(std::nullopt, kPage).size() != std::size_t(kPage)) state.SkipWithError("short first page");
    for (auto _ : state) benchmark::DoNotOptimize(store.loadPage(std::nullopt, kPage));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FirstPageFromCache)->Unit(benchmark::kMicrosecond);

void BM_FirstPageFromSQLite(benchmark::State& state) {
    const auto& store = filledStore();
    for (auto _ : state) benchmark::DoNotOptimize(store.loadPage(0, kPage));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FirstPageFromSQLite)->Unit(benchmark::kMicrosecond);

void BM_TotalCountFromCache(benchmark::State& state) {
    const auto& store = filledStore();
    for (auto _ : state) benchmark::DoNotOptimize(store.totalCount());
}
BENCHMARK(BM_TotalCountFromCache)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
