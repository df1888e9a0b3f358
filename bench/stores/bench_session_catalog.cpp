// The session catalogue store at the scale the log import fills it: 100,000 sessions.
//   upsert:  all of them in batches of 1,000 (one transaction each), as an import writes them;
//   page:    every page of 500, latest ended first, decoded;
//   export:  an incremental export to a new device in pages of 1,000, moving its watermark.
// Beside each: raw SQLite running the same statements on pre-encoded JSON with one prepared
// statement per path, and JSON alone. "overhead_pct" is what the store adds beyond the two, as
// a share of the store's own time.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace {

using namespace gaugepoint;
using Clock = std::chrono::steady_clock;

constexpr int kSessions = 100'000;
constexpr int kBatch = 1'000;
constexpr int kPage = 500;
const Date kNow = dateFromSeconds(1795219200);  // 2026-11-21T00:00:00Z

// A session as the log import writes it: three models with their usage, a title, a project.
std::vector<QuotaSessionDescriptor> sessions() {
    const char* models[] = {"claude-sonnet-4-5-20250929", "claude-haiku-4-5-20251001", "claude-opus-4-1-20250805"};
    std::vector<QuotaSessionDescriptor> list(kSessions);
    for (int i = 0; i < kSessions; ++i) {
        auto& d = list[std::size_t(i)];
        d.id = "6a9d1d97-1cf1-4645-834d-" + std::to_string(100000000000 + i);
        d.sourceID = "workstation";
        d.sourceName = "Workstation";
        d.provider = {"claude", "Claude"};
        d.projectPath = "/home/dev/src/project-" + std::to_string(i % 40);
        d.title = "Refactor the upload client so retries back off (" + std::to_string(i) + ")";
        d.startedAt = kNow - std::chrono::minutes(i * 7);
        d.endedAt = *d.startedAt + std::chrono::minutes(40);
        d.messageCount = 20 + i % 90;
        d.promptCount = 3 + i % 9;
        for (int m = 0; m < 3; ++m) {
            QuotaSessionTokenUsage usage{120 + i % 50, 4000 + i % 977, 300000 + i, 20000 + i % 5000, std::nullopt};
            d.topModels.push_back({models[m], models[m], 1, 7, usage});
            d.tokenUsage += usage;
        }
    }
    return list;
}

std::filesystem::path freshDirectory(const char* name) {
    const auto dir = std::filesystem::temp_directory_path() / ("gaugepoint-bench-" + std::to_string(::getpid())) / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

QuotaSyncConfiguration configurationAt(const std::filesystem::path& dir) {
    QuotaSyncConfiguration c;
    c.appGroupDirectory = dir;
    c.clock = gaugepoint::Clock::fixedAt(kNow);
    return c;
}

// A raw connection on the store's own file, set up as the store sets up its own.
sqlite3* openRaw(const std::filesystem::path& file) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA mmap_size=268435456; PRAGMA cache_size = -4000",
                 nullptr, nullptr, nullptr);
    return db;
}

// The store's upsert statement on pre-encoded rows, in the same batches.
double rawUpsert(const std::filesystem::path& file, const std::vector<QuotaSessionDescriptor>& list,
                 const std::vector<std::string>& texts, const char* upsertSQL) {
    sqlite3* db = openRaw(file);
    sqlite3_exec(db, "DELETE FROM session_descriptors", nullptr, nullptr, nullptr);
    sqlite3_stmt* upsert = nullptr;
    sqlite3_prepare_v2(db, upsertSQL, -1, &upsert, nullptr);
    const auto start = Clock::now();
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (i % kBatch == 0) sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
        const auto& d = list[i];
        sqlite3_bind_text(upsert, 1, d.id.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(upsert, 2, d.sourceID.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(upsert, 3, d.provider.id.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(upsert, 4, d.provider.displayName.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(upsert, 5, d.projectPath->c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_text(upsert, 6, d.title.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_double(upsert, 7, secondsSince1970(*d.startedAt));
        sqlite3_bind_double(upsert, 8, secondsSince1970(*d.endedAt));
        sqlite3_bind_int64(upsert, 9, d.messageCount);
        sqlite3_bind_int64(upsert, 10, d.promptCount);
        sqlite3_bind_int64(upsert, 11, d.tokenUsage.totalTokens());
        sqlite3_bind_text(upsert, 12, "lite", -1, SQLITE_STATIC);
        sqlite3_bind_double(upsert, 13, secondsSince1970(kNow));
        sqlite3_bind_double(upsert, 14, secondsSince1970(kNow));
        sqlite3_bind_blob(upsert, 15, texts[i].data(), int(texts[i].size()), SQLITE_STATIC);
        sqlite3_bind_text(upsert, 16, "plain", -1, SQLITE_STATIC);
        sqlite3_step(upsert);
        sqlite3_reset(upsert);
        if (i % kBatch == kBatch - 1 || i + 1 == list.size()) sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    }
    const double seconds = secondsSince(start);
    sqlite3_finalize(upsert);
    sqlite3_close_v2(db);
    return seconds;
}

// Runs `sql` with `bind` per page until it returns no rows; the blobs of column `blobColumn`
// are copied out. Returns the time and fills `blobs`.
double rawPages(const std::filesystem::path& file, const char* sql, int blobColumn,
                const std::function<void(sqlite3_stmt*, int page, sqlite3_stmt* lastRow)>& bind,
                std::vector<std::string>& blobs) {
    sqlite3* db = openRaw(file);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &select, nullptr);
    blobs.clear();
    const auto start = Clock::now();
    for (int page = 0;; ++page) {
        bind(select, page, nullptr);
        int rows = 0;
        while (sqlite3_step(select) == SQLITE_ROW) {
            ++rows;
            blobs.emplace_back(static_cast<const char*>(sqlite3_column_blob(select, blobColumn)),
                               std::size_t(sqlite3_column_bytes(select, blobColumn)));
            bind(nullptr, page, select);  // lets the caller note the last row's position
        }
        sqlite3_reset(select);
        if (rows == 0) break;
    }
    const double seconds = secondsSince(start);
    sqlite3_finalize(select);
    sqlite3_close_v2(db);
    return seconds;
}

double decodeAll(const std::vector<std::string>& texts) {
    std::vector<QuotaSessionDescriptor> decoded;
    decoded.reserve(texts.size());
    const auto start = Clock::now();
    for (const auto& t : texts) decoded.push_back(json::decode<QuotaSessionDescriptor>(t));
    const double seconds = secondsSince(start);
    benchmark::DoNotOptimize(decoded.data());
    return seconds;
}

void report(benchmark::State& state, double store, double raw, double jsonTime) {
    state.counters["store_ms"] = store * 1e3;
    state.counters["raw_sqlite_ms"] = raw * 1e3;
    state.counters["json_ms"] = jsonTime * 1e3;
    state.counters["store_us_per_session"] = store * 1e6 / kSessions;
    state.counters["overhead_pct"] = 100 * (store - raw - jsonTime) / store;
}

// The upsert statement the store runs, restated here.
constexpr const char* kUpsert =
    "INSERT INTO session_descriptors (id, source_id, provider_id, provider_name, project_path, title, started_at, "
    "ended_at, message_count, prompt_count, total_tokens, sync_mode, inserted_at, updated_at, descriptor_data, "
    "descriptor_encoding) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)\n"
    "ON CONFLICT(source_id, id) DO UPDATE SET provider_id = excluded.provider_id, provider_name = excluded.provider_name,"
    " project_path = excluded.project_path, title = excluded.title, started_at = excluded.started_at,"
    " ended_at = excluded.ended_at, message_count = excluded.message_count, prompt_count = excluded.prompt_count,"
    " total_tokens = excluded.total_tokens, sync_mode = excluded.sync_mode, updated_at = CASE"
    " WHEN session_descriptors.descriptor_data = excluded.descriptor_data AND"
    " COALESCE(session_descriptors.descriptor_encoding, 'plain') = COALESCE(excluded.descriptor_encoding, 'plain')"
    " THEN session_descriptors.updated_at ELSE excluded.updated_at END, descriptor_data = excluded.descriptor_data,"
    " descriptor_encoding = excluded.descriptor_encoding";

struct Fixture {
    std::vector<QuotaSessionDescriptor> list = sessions();
    std::vector<std::string> texts;
    std::vector<std::vector<QuotaSessionDescriptor>> batches;
    std::filesystem::path dir = freshDirectory("catalog");
    QuotaSessionCatalogStore store{configurationAt(dir)};
    Fixture() {
        for (const auto& d : list) texts.push_back(json::encode(d));
        for (std::size_t i = 0; i < list.size(); i += kBatch) {
            batches.emplace_back(list.begin() + long(i), list.begin() + long(std::min(i + kBatch, list.size())));
        }
    }
    std::filesystem::path file() const { return store.databaseURL(); }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

void BM_UpsertInBatches(benchmark::State& state) {
    auto& f = fixture();
    double best[3] = {1e300, 1e300, 1e300};
    for (auto _ : state) {
        f.store.clearDescriptors();
        auto start = Clock::now();
        for (const auto& batch : f.batches) f.store.upsertBatch(batch, "workstation");
        const double storeTime = secondsSince(start);
        const double raw = rawUpsert(f.file(), f.list, f.texts, kUpsert);
        start = Clock::now();
        for (const auto& d : f.list) benchmark::DoNotOptimize(json::encode(d));
        const double jsonTime = secondsSince(start);
        state.SetIterationTime(storeTime);
        best[0] = std::min(best[0], storeTime), best[1] = std::min(best[1], raw), best[2] = std::min(best[2], jsonTime);
    }
    f.store.upsertBatch(f.list, "workstation");  // leave the catalogue full for the reads
    report(state, best[0], best[1], best[2]);
}
BENCHMARK(BM_UpsertInBatches)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_PageThroughAll(benchmark::State& state) {
    auto& f = fixture();
    std::vector<std::string> blobs;
    double best[3] = {1e300, 1e300, 1e300};
    for (auto _ : state) {
        auto start = Clock::now();
        std::size_t seen = 0;
        for (std::int64_t offset = 0;; offset += kPage) {
            const auto page = f.store.loadDescriptors(std::string("workstation"), kPage, offset);
            if (page.empty()) break;
            seen += page.size();
        }
        const double storeTime = secondsSince(start);
        if (seen != f.list.size()) state.SkipWithError("lost sessions");
        const double raw = rawPages(
            f.file(),
            "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nWHERE source_id = ?\n"
            "ORDER BY ended_at DESC, updated_at DESC\nLIMIT ?\nOFFSET ?",
            0,
            [](sqlite3_stmt* s, int page, sqlite3_stmt*) {
                if (!s) return;
                sqlite3_bind_text(s, 1, "workstation", -1, SQLITE_STATIC);
                sqlite3_bind_int64(s, 2, kPage);
                sqlite3_bind_int64(s, 3, std::int64_t(page) * kPage);
            },
            blobs);
        const double jsonTime = decodeAll(blobs);
        state.SetIterationTime(storeTime);
        best[0] = std::min(best[0], storeTime), best[1] = std::min(best[1], raw), best[2] = std::min(best[2], jsonTime);
    }
    report(state, best[0], best[1], best[2]);
}
BENCHMARK(BM_PageThroughAll)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_ExportIncrementally(benchmark::State& state) {
    auto& f = fixture();
    std::vector<std::string> blobs;
    double best[3] = {1e300, 1e300, 1e300};
    int round = 0;
    for (auto _ : state) {
        const std::string device = "device-" + std::to_string(round++);
        auto start = Clock::now();
        std::size_t seen = 0;
        for (;;) {
            const auto page = f.store.exportIncrementalDescriptors(device, 1000);
            if (page.descriptors.empty()) break;
            seen += page.descriptors.size();
            f.store.updateWatermark(device, QuotaSessionCatalogStore::descriptorsTable, page.watermark);
        }
        const double storeTime = secondsSince(start);
        if (seen != f.list.size()) state.SkipWithError("lost sessions");
        double lastAt = 0;
        std::int64_t lastRow = 0;
        const double raw = rawPages(
            f.file(),
            "SELECT rowid, updated_at, descriptor_data, descriptor_encoding\nFROM session_descriptors\n"
            "WHERE updated_at >= ? AND (updated_at > ? OR rowid > ?)\nORDER BY updated_at ASC, rowid ASC\nLIMIT ?",
            2,
            [&](sqlite3_stmt* s, int, sqlite3_stmt* row) {
                if (row) {
                    lastRow = sqlite3_column_int64(row, 0), lastAt = sqlite3_column_double(row, 1);
                    return;
                }
                sqlite3_bind_double(s, 1, lastAt);
                sqlite3_bind_double(s, 2, lastAt);
                sqlite3_bind_int64(s, 3, lastRow);
                sqlite3_bind_int64(s, 4, 1000);
            },
            blobs);
        const double jsonTime = decodeAll(blobs);
        state.SetIterationTime(storeTime);
        best[0] = std::min(best[0], storeTime), best[1] = std::min(best[1], raw), best[2] = std::min(best[2], jsonTime);
    }
    report(state, best[0], best[1], best[2]);
}
BENCHMARK(BM_ExportIncrementally)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
