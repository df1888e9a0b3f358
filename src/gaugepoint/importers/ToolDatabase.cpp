#include "gaugepoint/importers/ToolDatabase.hpp"

#include <sqlite3.h>

#include "gaugepoint/importers/JsonLineParser.hpp"
#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {
namespace {

// A writer's commit takes milliseconds; a scan waits this long for one before giving up (the
// database is then read at the next scan).
constexpr int kBusyMilliseconds = 2000;

// A file path as a "file:" URI: the characters URIs give a meaning are escaped.
std::string uriOf(const std::filesystem::path& path) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const unsigned char c : path.string()) {
        if (c == '%' || c == '?' || c == '#' || c < 0x20 || c >= 0x7F) {
            uri += '%';
            uri += hex[c >> 4];
            uri += hex[c & 15];
        } else {
            uri += char(c);
        }
    }
    return uri + "?mode=ro";
}

class ReadOnlyDatabase {
public:
    explicit ReadOnlyDatabase(const std::filesystem::path& path) : path_(path.string()) {
        const int rc = sqlite3_open_v2(uriOf(path).c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
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

void readToolDatabase(const CodingToolLogs& tool, const std::filesystem::path& path, const LogFileContext& file,
                      LogRecordSink& sink) {
    ReadOnlyDatabase db{path};
    db.exec("BEGIN", "cannot be read");
    tool.readDatabase(db.get(), file, sink);
    db.exec("COMMIT", "cannot be read");
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

PaddedJson::PaddedJson(std::string_view text) : buffer_(text), size_(text.size()) { buffer_.resize(size_ + kJsonPadding); }

}  // namespace gaugepoint
