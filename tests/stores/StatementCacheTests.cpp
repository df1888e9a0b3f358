// The statements a connection holder keeps for its connection, and the one rule for trims.

#include <gtest/gtest.h>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::failureOf;
using testing::RawDatabase;
using testing::ScratchDirectory;
using testing::snapshotOf;

constexpr const char* kInsert = "INSERT INTO t(id, v) VALUES (?, ?)";
constexpr const char* kSelectAll = "SELECT v FROM t ORDER BY id";
constexpr const char* kIsUnbound = "SELECT ?1 IS NULL";

const SQLiteStoreSetup kSetup{"Unable to open test database at ", "CREATE TABLE IF NOT EXISTS t(id INTEGER PRIMARY KEY, v TEXT);", {}};

std::vector<std::string> allValues(sqlite::Connection& connection) {
    sqlite::CachedStatement select{connection, kSelectAll, "select all"};
    std::vector<std::string> values;
    while (select.step()) values.emplace_back(select.text(0).value_or(""));
    return values;
}

TEST(StatementCache, StatementsAreKeptPerConnectionAndComeBackResetAndUnbound) {
    ScratchDirectory dir;
    SQLiteConnectionHolder holder{dir.path() / "cache.sqlite"};
    holder.withConnection(kSetup, [](sqlite::Connection& connection) {
        sqlite::CachedStatement{connection, kInsert, "insert"}.bind(1, std::int64_t{1}).bind(2, "a").run();
        // Left half-read and bound: neither may leak into the next call.
        sqlite::CachedStatement select{connection, kSelectAll, "select all"};
        EXPECT_TRUE(select.step());
        sqlite::CachedStatement{connection, kIsUnbound, "unbound"}.bind(1, std::int64_t{5});
    });
    RawDatabase other{dir.path() / "cache.sqlite"};
    ASSERT_EQ(other.exec("INSERT INTO t(id, v) VALUES (2, 'b')"), "");

    holder.withConnection(kSetup, [](sqlite::Connection& connection) {
        // A statement still stepping would have kept the first call's snapshot (no 'b').
        EXPECT_EQ(allValues(connection), (std::vector<std::string>{"a", "b"}));
        sqlite::CachedStatement unbound{connection, kIsUnbound, "unbound"};
        ASSERT_TRUE(unbound.step());
        EXPECT_EQ(unbound.integer(0), 1);
        EXPECT_EQ(connection.statementCache()->size(), 3u);  // prepared once each, then reused
    });
}

TEST(StatementCache, OneTextInUseTwiceAndOneTextUsedUnderTwoNames) {
    ScratchDirectory dir;
    SQLiteConnectionHolder holder{dir.path() / "cache.sqlite"};
    holder.withConnection(kSetup, [](sqlite::Connection& connection) {
        for (std::int64_t id : {1, 2}) sqlite::CachedStatement{connection, kInsert, "insert"}.bind(1, id).bind(2, "x").run();
        // The outer walk goes on undisturbed while an inner use of the same text runs whole.
        sqlite::CachedStatement outer{connection, kSelectAll, "select all"};
        int rows = 0;
        while (outer.step()) {
            ++rows;
            EXPECT_EQ(allValues(connection).size(), 2u);
        }
        EXPECT_EQ(rows, 2);
        // Each use fails with its own operation's label, whoever prepared the statement first.
        EXPECT_EQ(failureOf([&] { sqlite::CachedStatement{connection, kInsert, "second insert"}.bind(1, std::int64_t{1}).run(); }),
                  "execute second insert: UNIQUE constraint failed: t.id");
    });
}

TEST(StatementCache, EveryTextBoundKeepsItsValueWhateverTheOrderLengthOrReuse) {
    ScratchDirectory dir;
    SQLiteConnectionHolder holder{dir.path() / "cache.sqlite"};
    holder.withConnection(kSetup, [](sqlite::Connection& connection) {
        constexpr const char* kEcho = "SELECT ?1 || '|' || ?2 || '|' || ?3";
        const std::string longText(5000, 'L');  // past what is kept: SQLite copies it itself
        const auto echo = [&](std::string_view a, std::string_view b, std::string_view c) {
            sqlite::CachedStatement statement{connection, kEcho, "echo"};
            // Bound out of order, short and long, each from a temporary that is gone at the step
            // (a kept text that moved would be read after it was freed: the sanitizer build sees it).
            statement.bind(1, std::string(a)).bind(3, std::string(c)).bind(2, std::string(b));
            EXPECT_TRUE(statement.step());
            return std::string(statement.text(0).value_or(""));
        };
        EXPECT_EQ(echo("a", "bb", "ccc"), "a|bb|ccc");
        EXPECT_EQ(echo("a much longer first text than fits inline", "", longText), "a much longer first text than fits inline||" + longText);
        EXPECT_EQ(echo("x", "y", "z"), "x|y|z");
        // Rows written from kept texts hold their own copies.
        for (std::int64_t id : {1, 2}) {
            sqlite::CachedStatement{connection, kInsert, "insert"}.bind(1, id).bind(2, std::string(id == 1 ? "first" : "second")).run();
        }
        EXPECT_EQ(allValues(connection), (std::vector<std::string>{"first", "second"}));
    });
}

// A trigger that refuses every delete: a trim that fails at its statement, on a real file.
void refuseDeletes(const std::filesystem::path& file, const std::string& table) {
    RawDatabase raw{file};
    ASSERT_EQ(raw.exec("CREATE TRIGGER refuse BEFORE DELETE ON " + table + " BEGIN SELECT RAISE(ABORT, 'deletes refused'); END"), "");
}

TEST(TrimRule, ATrimThatFailsTheCallThrowsWithItsLabelAlsoInsideAWrite) {
    ScratchDirectory dir;
    const QuotaHistoryStore history{configurationIn(dir, at("2026-11-21T12:00:00Z"))};
    history.append(snapshotOf("a", at("2026-11-01T00:00:00Z")), 365);
    refuseDeletes(history.historyURL(), "snapshot_history");

    EXPECT_EQ(failureOf([&] { history.trimOlderThan(1); }), "execute trimOlderThan: deletes refused");
    EXPECT_EQ(failureOf([&] { history.append(snapshotOf("a", at("2026-11-21T11:00:00Z")), 1); }),
              "execute retention trim: deletes refused");
}

TEST(TrimRule, AHousekeepingTrimNeverThrowsAndLeavesTheFailureForTheCommand) {
    ScratchDirectory dir;
    const QuotaSourceSnapshotStore sources{configurationIn(dir, at("2026-11-21T12:00:00Z"))};
    // Two rows of one source: the older one is what a trim removes.
    QuotaSourceSnapshotRegistry registry;
    for (const char* id : {"old", "new"}) {
        QuotaSourceSnapshotRecord record;
        record.id = id;
        record.sourceID = "mac";
        record.sourceName = "Mac";
        record.snapshot = snapshotOf("mac", at("2026-11-01T00:00:00Z"));
        record.receivedAt = at(std::string(id) == "old" ? "2026-11-01T00:00:00Z" : "2026-11-20T00:00:00Z");
        registry.entries.push_back(record);
    }
    sources.save(registry);
    refuseDeletes(sources.databaseURL(), "source_snapshots");
    SQLiteConnectionHolder::clearLastFailure();

    EXPECT_EQ(sources.trimOldEntries(86400), 0);
    ASSERT_TRUE(SQLiteConnectionHolder::lastFailure());
    EXPECT_EQ(SQLiteConnectionHolder::lastFailure()->message, "execute trimOldEntries: deletes refused");
    EXPECT_EQ(sources.load().entries.size(), 2u);
}

}  // namespace
}  // namespace gaugepoint
