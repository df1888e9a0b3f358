#pragma once

// Reading a coding tool's own SQLite database without getting in its way: opened read-only
// through a "mode=ro" URI (never created, never written, never locking the tool out), waiting a
// little for a writer's commit, and read inside one read transaction so that a database being
// written (WAL or not) is seen as of one commit.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/importers/CodingToolLogs.hpp"

namespace gaugepoint {

// Opens `path` read-only and hands it to `tool.readDatabase` in a read transaction. Throws
// gaugepoint::Error naming the path when it cannot be opened or read.
void readToolDatabase(const CodingToolLogs& tool, const std::filesystem::path& path, const LogFileContext& file,
                      LogRecordSink& sink);

// Whether `table` exists in `database` (tools add tables between versions).
bool hasTable(sqlite3* database, std::string_view table);

// A JSON text field such as SQLite hands it over, copied and padded for the line parser.
struct PaddedJson {
    explicit PaddedJson(std::string_view text);
    std::string_view text() const { return std::string_view(buffer_.data(), size_); }

private:
    std::string buffer_;
    std::size_t size_;
};

}  // namespace gaugepoint
