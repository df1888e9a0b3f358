#pragma once

// A connection of its own, read-only, to a database file that someone else may be writing: for a
// program's database we must never get in the way of, or for a long read of one of our stores
// beside the connection its holder keeps busy.

#include <chrono>
#include <filesystem>
#include <string>

#include "gaugepoint/stores/SQLite.hpp"

struct sqlite3;

namespace gaugepoint::sqlite {

// `path` as a "file:" URI opened with mode=ro: the characters URIs give a meaning are escaped.
std::string readOnlyURI(const std::filesystem::path& path);

class ReadOnlyConnection {
public:
    // Opens `path` (never creating it, never writing it or its journal) and waits up to `busy`
    // for a writer's lock. Throws Failure("open <path>: <message>"). For one thread at a time.
    ReadOnlyConnection(const std::filesystem::path& path, std::chrono::milliseconds busy);
    ~ReadOnlyConnection();
    ReadOnlyConnection(const ReadOnlyConnection&) = delete;
    ReadOnlyConnection& operator=(const ReadOnlyConnection&) = delete;

    Connection connection() const { return Connection{db_}; }

private:
    sqlite3* db_ = nullptr;
};

}  // namespace gaugepoint::sqlite
