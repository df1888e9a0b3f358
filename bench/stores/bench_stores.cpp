// The history store against its natural limits, measured in the same run:
//   append path: 10,000 realistic snapshots recorded one by one (insert + retention trim);
//   load path:   a week at five-minute steps (2,016 snapshots) loaded as a timeline.
// Beside each path: raw SQLite running the same statements on the same pre-encoded blobs with
// one prepared statement, JSON encode/decode alone and LZFSE alone. "overhead_pct" is what the
// store adds beyond those three, as a share of the store's own time (target: under 10 %).

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <random>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "lzfse/Lzfse.hpp"

namespace {

using namespace gaugepoint;
using Clock = std::chrono::steady_clock;

const Date kStart = dateFromSeconds(1795219200);  // 2026-11-21T00:00:00Z

QuotaWindow window(const char* id, double used, std::int64_t minutes, std::int64_t importance, Date resets,
                   QuotaWindowSemantic semantic, std::optional<std::string> slug = {}) {
    return {id, id, used, resets, minutes, std::string("reset by the provider's API"), importance, semantic, std::move(slug)};
}

// A snapshot like the companion publishes: six providers, rolling and weekly windows, per-model
// limits, credits, token usage and a week of daily usage.
QuotaSnapshot realisticSnapshot(int step, std::mt19937& random) {
    const Date at = kStart + std::chrono::minutes(5 * step);
    const auto used = [&] { return double(random() % 10000) / 100; };
    QuotaSnapshot s;
    s.generatedAt = at;
    s.source = QuotaSnapshotSource{"3F2A9C1E-mac-studio", "Mac Studio", "studio.local", "macOS 15"};
    const auto provider = [&](const char* id, const char* name, QuotaProviderStrategy strategy) -> ProviderQuota& {
        ProviderQuota p;
        p.id = id;
        p.displayName = name;
        p.quotaStrategy = strategy;
        p.updatedAt = at;
        s.providers.push_back(std::move(p));
        return s.providers.back();
    };
    using S = QuotaWindowSemantic;
    auto& claude = provider("claude", "Claude", QuotaProviderStrategy::multiWindow);
    claude.modelID = "claude-sonnet-4-5";
    claude.windows = {window("primary", used(), 300, 0, at + std::chrono::hours(2), S::rollingSession),
                      window("secondary", used(), 10080, 1, at + std::chrono::hours(70), S::fixedCycle),
                      window("tertiary", used(), 10080, 2, at + std::chrono::hours(70), S::perModel, "claude-opus-4-1")};
    claude.tokenUsage = QuotaTokenUsageSummary{3.18, 1843210, 212.47, 98123456};
    claude.dailyTokenUsage.emplace();
    for (int d = 0; d < 7; ++d) claude.dailyTokenUsage->push_back({"2026-11-1" + std::to_string(d), used(), 3911204 + d});
    auto& codex = provider("codex", "Codex", QuotaProviderStrategy::multiWindow);
    codex.creditsRemaining = 120;
    codex.windows = {window("primary", used(), 300, 0, at + std::chrono::hours(4), S::rollingSession),
                     window("secondary", used(), 10080, 1, at + std::chrono::hours(100), S::fixedCycle)};
    auto& gemini = provider("gemini", "Gemini", QuotaProviderStrategy::multiModel);
    gemini.windows = {window("primary", used(), 1440, 0, at + std::chrono::hours(15), S::perModel, "gemini-2.5-pro"),
                      window("secondary", used(), 1440, 1, at + std::chrono::hours(15), S::perModel, "gemini-2.5-flash")};
    auto& cursor = provider("cursor", "Cursor", QuotaProviderStrategy::multiCategory);
    cursor.windows = {window("primary", used(), 43200, 0, at + std::chrono::hours(240), S::fixedCycle),
                      window("secondary", used(), 43200, 1, at + std::chrono::hours(240), S::fixedCycle)};
    provider("copilot", "Copilot", QuotaProviderStrategy::singleWindow).windows = {
        window("primary", used(), 43200, 0, at + std::chrono::hours(240), S::usageCategory)};
    provider("openrouter", "OpenRouter", QuotaProviderStrategy::creditsOnly).creditsRemaining = 18.42;
    return s;
}

std::vector<QuotaSnapshot> snapshots(int count) {
    std::mt19937 random(42);
    std::vector<QuotaSnapshot> list;
    for (int i = 0; i < count; ++i) list.push_back(realisticSnapshot(i, random));
    return list;
}

std::filesystem::path freshDirectory(const char* name) {
    const auto dir = std::filesystem::temp_directory_path() / ("gaugepoint-bench-" + std::to_string(::getpid())) / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

struct Encoded {
    std::string id, json;
    std::vector<std::uint8_t> blob;
};

std::vector<Encoded> encodeAll(const std::vector<QuotaSnapshot>& list) {
    std::vector<Encoded> rows;
    for (const auto& s : list) {
        Encoded e{s.source->sourceID + "_" + formatInternetDateTime(s.generatedAt), json::encode(s), {}};
        e.blob = lzfse::compress({reinterpret_cast<const std::uint8_t*>(e.json.data()), e.json.size()});
        rows.push_back(std::move(e));
    }
    return rows;
}

// A raw connection set up as the store sets up its own.
sqlite3* openRaw(const std::filesystem::path& file) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    sqlite3_busy_timeout(db, 2000);
    sqlite3_exec(db,
                 "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA mmap_size=268435456;"
                 "CREATE TABLE IF NOT EXISTS snapshot_history (id TEXT PRIMARY KEY, source_id TEXT NOT NULL DEFAULT '',"
                 " source_name TEXT, generated_at REAL NOT NULL, snapshot_json BLOB NOT NULL,"
                 " snapshot_encoding TEXT NOT NULL DEFAULT 'plain');"
                 "CREATE INDEX IF NOT EXISTS idx_sh_generated_at ON snapshot_history(generated_at DESC);"
                 "CREATE INDEX IF NOT EXISTS idx_sh_source_id ON snapshot_history(source_id);",
                 nullptr, nullptr, nullptr);
    return db;
}

constexpr double kRetentionDays = 7;

double rawAppend(const std::vector<QuotaSnapshot>& list, const std::vector<Encoded>& rows) {
    sqlite3* db = openRaw(freshDirectory("raw-append") / "raw.sqlite");
    sqlite3_stmt* insert = nullptr;
    sqlite3_stmt* trim = nullptr;
    sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO snapshot_history (id, source_id, source_name, generated_at, "
                           "snapshot_json, snapshot_encoding) VALUES (?, ?, ?, ?, ?, ?)", -1, &insert, nullptr);
    sqlite3_prepare_v2(db, "DELETE FROM snapshot_history WHERE generated_at < ?", -1, &trim, nullptr);
    const auto start = Clock::now();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const double at = secondsSince1970(list[i].generatedAt);
        sqlite3_bind_text(insert, 1, rows[i].id.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 2, list[i].source->sourceID.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(insert, 3, list[i].source->sourceName.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_double(insert, 4, at);
        sqlite3_bind_blob(insert, 5, rows[i].blob.data(), int(rows[i].blob.size()), SQLITE_STATIC);
        sqlite3_bind_text(insert, 6, "lzfse", -1, SQLITE_STATIC);
        sqlite3_step(insert);
        sqlite3_reset(insert);
        sqlite3_bind_double(trim, 1, at - kRetentionDays * 86400);
        sqlite3_step(trim);
        sqlite3_reset(trim);
    }
    const double seconds = secondsSince(start);
    sqlite3_finalize(insert);
    sqlite3_finalize(trim);
    sqlite3_close_v2(db);
    return seconds;
}

double rawSelect(const std::filesystem::path& file, std::vector<std::vector<std::uint8_t>>& blobs) {
    sqlite3* db = openRaw(file);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, "SELECT source_id, source_name, generated_at, snapshot_json, snapshot_encoding FROM "
                           "snapshot_history ORDER BY generated_at ASC", -1, &select, nullptr);
    const auto start = Clock::now();
    blobs.clear();
    while (sqlite3_step(select) == SQLITE_ROW) {
        const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(select, 3));
        blobs.emplace_back(data, data + sqlite3_column_bytes(select, 3));
        benchmark::DoNotOptimize(sqlite3_column_text(select, 4));
    }
    const double seconds = secondsSince(start);
    sqlite3_finalize(select);
    sqlite3_close_v2(db);
    return seconds;
}

QuotaSyncConfiguration configurationAt(const std::filesystem::path& dir, Date now) {
    QuotaSyncConfiguration c;
    c.appGroupDirectory = dir;
    c.clock = gaugepoint::Clock::fixedAt(now);
    return c;
}

// Best time of each component over the rounds of one benchmark: on a shared machine the minimum
// is the figure least disturbed by other work.
struct Best {
    double store = 1e300, raw = 1e300, json = 1e300, lzfse = 1e300;
    void add(double s, double r, double j, double l) {
        store = std::min(store, s);
        raw = std::min(raw, r);
        json = std::min(json, j);
        lzfse = std::min(lzfse, l);
    }
};

void report(benchmark::State& state, const Best& best, std::size_t n) {
    const double store = best.store, raw = best.raw, jsonTime = best.json, lzfseTime = best.lzfse;
    const double parts = raw + jsonTime + lzfseTime;
    state.counters["store_ms"] = store * 1e3;
    state.counters["raw_sqlite_ms"] = raw * 1e3;
    state.counters["json_ms"] = jsonTime * 1e3;
    state.counters["lzfse_ms"] = lzfseTime * 1e3;
    state.counters["store_us_per_snapshot"] = store * 1e6 / double(n);
    state.counters["overhead_pct"] = 100 * (store - parts) / store;
}

void BM_AppendPath(benchmark::State& state) {
    const auto list = snapshots(10000);
    const auto rows = encodeAll(list);
    Best best;
    for (auto _ : state) {
        // The store, as the companion calls it: record each snapshot with a week's retention.
        const QuotaHistoryStore store{configurationAt(freshDirectory("store-append"), list.back().generatedAt)};
        auto start = Clock::now();
        for (const auto& s : list) store.record(s, kRetentionDays);
        const double storeTime = secondsSince(start);

        const double raw = rawAppend(list, rows);

        start = Clock::now();
        for (const auto& s : list) benchmark::DoNotOptimize(json::encode(s));
        const double jsonTime = secondsSince(start);

        start = Clock::now();
        for (const auto& r : rows) {
            benchmark::DoNotOptimize(lzfse::compress({reinterpret_cast<const std::uint8_t*>(r.json.data()), r.json.size()}));
        }
        const double lzfseTime = secondsSince(start);
        state.SetIterationTime(storeTime);
        best.add(storeTime, raw, jsonTime, lzfseTime);
    }
    report(state, best, list.size());
}
BENCHMARK(BM_AppendPath)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_LoadWeekPath(benchmark::State& state) {
    const auto list = snapshots(2016);
    const auto dir = freshDirectory("store-load");
    const QuotaHistoryStore store{configurationAt(dir, list.back().generatedAt)};
    store.saveTimeline({1, list});
    std::vector<std::vector<std::uint8_t>> blobs;
    std::vector<std::string> texts;
    Best best;
    for (auto _ : state) {
        auto start = Clock::now();
        const auto timeline = store.loadTimeline();
        const double storeTime = secondsSince(start);
        if (timeline.snapshots.size() != list.size()) state.SkipWithError("lost snapshots");

        const double raw = rawSelect(dir / "quota-history.sqlite", blobs);

        start = Clock::now();
        texts.clear();
        for (const auto& blob : blobs) {
            const auto json = lzfse::decompress(blob);
            texts.emplace_back(json.begin(), json.end());
        }
        const double lzfseTime = secondsSince(start);

        // Decoded snapshots are kept, as the store keeps them in its timeline.
        std::vector<QuotaSnapshot> decoded;
        start = Clock::now();
        for (const auto& text : texts) decoded.push_back(json::decode<QuotaSnapshot>(text));
        const double jsonTime = secondsSince(start);
        benchmark::DoNotOptimize(decoded.data());
        state.SetIterationTime(storeTime);
        best.add(storeTime, raw, jsonTime, lzfseTime);
    }
    report(state, best, list.size());
}
BENCHMARK(BM_LoadWeekPath)->Iterations(30)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
