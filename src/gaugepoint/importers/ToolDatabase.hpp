#pragma once

// Reading a coding tool's own SQLite database without getting in its way: opened read-only
// through a "mode=ro" URI (never created, never written, never locking the tool out), waiting a
// little for a writer's commit, and read inside one read transaction so that a database being
// written (WAL or not) is seen as of one commit.

#include <cstdint>
#include <filesystem>
#include <map>
#include <vector>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/importers/CodingToolLogs.hpp"

namespace gaugepoint {

// Opens `path` read-only and hands it, with `marks`, to `tool.readDatabase` in a read
// transaction. Throws gaugepoint::Error naming the path when it cannot be opened or read;
// `marks` is then as it was.
DatabaseRead readToolDatabase(const CodingToolLogs& tool, const std::filesystem::path& path, const LogFileContext& file,
                              std::string& marks, LogRecordSink& sink);

// Whether `table` exists in `database` (tools add tables between versions).
bool hasTable(sqlite3* database, std::string_view table);

// How far the reads of one table of a tool's database went: every row up to rowid `lastRowID`,
// every update stamped up to `lastUpdate` (in the tool's own unit), and `rows` rows in all then.
struct TableMark {
    std::int64_t lastRowID = 0;
    std::int64_t lastUpdate = 0;
    std::int64_t rows = 0;
    bool operator==(const TableMark&) const = default;
};

// The marks of a database's tables as the file's parser state keeps them between scans; they
// commit with the rows they cover.
class DatabaseMarks {
public:
    // The marks a state holds; none for "" or a state these marks did not write.
    static std::optional<DatabaseMarks> parse(std::string_view state);
    std::string text() const;
    std::optional<TableMark> of(std::string_view table) const;
    void set(std::string_view table, TableMark mark);

private:
    std::map<std::string, TableMark, std::less<>> tables_;
};

// A writer's commit lands within seconds of the update time it stamps on a row (and a tool may
// stamp whole seconds): a read looks again at rows stamped this long before its mark, so a late
// commit is not missed. Reading a row again only replaces what it gave.
constexpr std::int64_t kLateCommitSeconds = 10;

// `stamp`, an update time in units of 1/`perSecond` s since 1970, but no later than this
// machine's clock: a mark never runs ahead of it, so a row stamped in the future cannot hide the
// updates that follow it.
std::int64_t notAfterNow(std::int64_t stamp, std::int64_t perSecond);

// Whether rows of `table` that the read up to `mark` saw are gone: fewer rows at or below its
// last rowid than it counted (rows deleted, rowids renumbered by a vacuum). Such a database is
// read whole again. Throws sqlite::Failure.
bool lostRows(sqlite3* database, std::string_view table, const TableMark& mark);

// The mark of `table` after a read whose rows were stamped up to `lastUpdate`: its last rowid and
// its row count now. Throws sqlite::Failure.
TableMark markOf(sqlite3* database, std::string_view table, std::int64_t lastUpdate);

// The ids as a JSON array, for "IN (SELECT value FROM json_each(?))".
std::string jsonArrayOf(const std::vector<std::string>& ids);

// A JSON text field such as SQLite hands it over, copied and padded for the line parser.
struct PaddedJson {
    explicit PaddedJson(std::string_view text);
    std::string_view text() const { return std::string_view(buffer_.data(), size_); }

private:
    std::string buffer_;
    std::size_t size_;
};

}  // namespace gaugepoint
