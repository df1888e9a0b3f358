#include "gaugepoint/stores/SQLiteReadOnly.hpp"

#include <sqlite3.h>

namespace gaugepoint::sqlite {

std::string readOnlyURI(const std::filesystem::path& path) {
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

ReadOnlyConnection::ReadOnlyConnection(const std::filesystem::path& path, std::chrono::milliseconds busy) {
    // One thread uses it, so it takes no lock of its own: in the default (serialised) mode each
    // call, down to every column of every row read, locks and unlocks the connection.
    constexpr int kFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(readOnlyURI(path).c_str(), &db_, kFlags, nullptr) != SQLITE_OK) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close_v2(db_);
        throw Failure("open " + path.string() + ": " + message);
    }
    sqlite3_busy_timeout(db_, int(busy.count()));
    // A large sort (a GROUP BY over a whole table) spills into temporary files by default: they
    // stay in memory, as nothing of a read needs to outlive it.
    sqlite3_exec(db_, "PRAGMA temp_store=MEMORY", nullptr, nullptr, nullptr);
}

ReadOnlyConnection::~ReadOnlyConnection() { sqlite3_close_v2(db_); }

}  // namespace gaugepoint::sqlite
