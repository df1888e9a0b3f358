#include "gaugepoint/importers/ToolDatabase.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <charconv>
#include <chrono>

#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/SQLite.hpp"
#include "gaugepoint/stores/SQLiteReadOnly.hpp"

namespace gaugepoint {
namespace {

// A writer's commit takes milliseconds; a scan waits this long for one before giving up (the
// database is then read at the next scan).
constexpr int kBusyMilliseconds = 2000;

class ReadOnlyDatabase {
public:
    explicit ReadOnlyDatabase(const std::filesystem::path& path) : path_(path.string()) {
        const int rc = sqlite3_open_v2(sqlite::readOnlyURI(path).c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
        if (rc != SQLITE_OK) fail("cannot be opened");
        sqlite3_busy_timeout(db_, kBusyMilliseconds);
    }
    ~ReadOnlyDatabase() { sqlite3_close_v2(db_); }
    ReadOnlyDatabase(const ReadOnlyDatabase&) = delete;
    ReadOnlyDatabase& operator=(const ReadOnlyDatabase&) = delete;

    void exec(const char* sql, const char* what) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(what);
    }
    [[noreturn]] void fail(const char* what) const {
        throw Error(path_ + " " + what + ": " + (db_ ? sqlite3_errmsg(db_) : "out of memory"));
    }
    sqlite3* get() const { return db_; }

private:
    std::string path_;
    sqlite3* db_ = nullptr;
};

}  // namespace

DatabaseRead readToolDatabase(const CodingToolLogs& tool, const std::filesystem::path& path, const LogFileContext& file,
                              std::string& marks, LogRecordSink& sink) {
    ReadOnlyDatabase db{path};
    db.exec("BEGIN", "cannot be read");
    std::string read = marks;
    DatabaseRead covered;
    try {
        covered = tool.readDatabase(db.get(), file, read, sink);
    } catch (const sqlite::Failure& e) {
        throw Error(path.string() + " cannot be read: " + e.what());
    }
    db.exec("COMMIT", "cannot be read");
    marks = std::move(read);
    return covered;
}

bool hasTable(sqlite3* database, std::string_view table) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?", -1, &statement,
                           nullptr) != SQLITE_OK) {
        return false;
    }
    sqlite3_bind_text(statement, 1, table.data(), int(table.size()), SQLITE_TRANSIENT);
    const bool found = sqlite3_step(statement) == SQLITE_ROW;
    sqlite3_finalize(statement);
    return found;
}

namespace {

constexpr std::string_view kMarksHeader = "table-marks 1\n";  // one line per table follows

bool readNumber(std::string_view& text, std::int64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{}) return false;
    text.remove_prefix(std::size_t(end - text.data()));
    if (!text.empty() && (text.front() == ' ' || text.front() == '\n')) text.remove_prefix(1);
    return true;
}

std::int64_t single(sqlite3* database, const std::string& sql, std::optional<std::int64_t> parameter) {
    sqlite::Connection connection{database};
    sqlite::Statement select{connection, sql.c_str(), "prepare table mark", "read table mark"};
    if (parameter) select.bind(1, *parameter);
    return select.step() ? select.integer(0) : 0;
}

}  // namespace

std::optional<DatabaseMarks> DatabaseMarks::parse(std::string_view state) {
    if (!state.starts_with(kMarksHeader)) return std::nullopt;
    state.remove_prefix(kMarksHeader.size());
    DatabaseMarks marks;
    while (!state.empty()) {
        const auto space = state.find(' ');
        if (space == std::string_view::npos || space == 0) return std::nullopt;
        const std::string table(state.substr(0, space));
        state.remove_prefix(space + 1);
        TableMark mark;
        if (!readNumber(state, mark.lastRowID) || !readNumber(state, mark.lastUpdate) || !readNumber(state, mark.rows)) {
            return std::nullopt;
        }
        marks.tables_[table] = mark;
    }
    return marks;
}

std::string DatabaseMarks::text() const {
    std::string text(kMarksHeader);
    for (const auto& [table, mark] : tables_) {
        text += table + " " + std::to_string(mark.lastRowID) + " " + std::to_string(mark.lastUpdate) + " " +
                std::to_string(mark.rows) + "\n";
    }
    return text;
}

std::optional<TableMark> DatabaseMarks::of(std::string_view table) const {
    const auto found = tables_.find(table);
    if (found == tables_.end()) return std::nullopt;
    return found->second;
}

void DatabaseMarks::set(std::string_view table, TableMark mark) { tables_[std::string(table)] = mark; }

std::int64_t notAfterNow(std::int64_t stamp, std::int64_t perSecond) {
    const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    return std::min(stamp, std::int64_t(now * double(perSecond)));
}

bool lostRows(sqlite3* database, std::string_view table, const TableMark& mark) {
    const std::string name(table);
    const std::int64_t all = single(database, "SELECT COUNT(*) FROM " + name, std::nullopt);
    const std::int64_t added = single(database, "SELECT COUNT(*) FROM " + name + " WHERE rowid > ?", mark.lastRowID);
    return all - added < mark.rows;
}

TableMark markOf(sqlite3* database, std::string_view table, std::int64_t lastUpdate) {
    const std::string name(table);
    return {single(database, "SELECT IFNULL(MAX(rowid), 0) FROM " + name, std::nullopt), lastUpdate,
            single(database, "SELECT COUNT(*) FROM " + name, std::nullopt)};
}

std::string jsonArrayOf(const std::vector<std::string>& ids) { return json::encode(ids); }

PaddedJson::PaddedJson(std::string_view text) : buffer_(text), size_(text.size()) { buffer_.resize(size_ + kJsonPadding); }

}  // namespace gaugepoint
