#pragma once

// Snapshots, configurations and raw SQLite access for the store tests.

#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint::testing {

inline QuotaSnapshot snapshotOf(const std::string& sourceID, Date generatedAt, double usedPercent = 40) {
    QuotaSnapshot s;
    s.generatedAt = generatedAt;
    if (!sourceID.empty()) s.source = QuotaSnapshotSource{sourceID, "Mac " + sourceID, sourceID + ".local", "macOS"};
    ProviderQuota p;
    p.id = "claude";
    p.displayName = "Claude";
    p.quotaStrategy = QuotaProviderStrategy::multiWindow;
    p.windows.push_back({"primary", "Session", usedPercent, generatedAt + std::chrono::hours(3), 300, {}, 0,
                         QuotaWindowSemantic::rollingSession, {}});
    p.windows.push_back({"secondary", "Week", usedPercent / 2, generatedAt + std::chrono::hours(72), 10080,
                         "weekly limit", 1, QuotaWindowSemantic::fixedCycle, {}});
    s.providers.push_back(p);
    return s;
}

inline QuotaSyncConfiguration configurationIn(const ScratchDirectory& dir, Date now = at("2026-11-21T12:00:00Z")) {
    QuotaSyncConfiguration c;
    c.appGroupDirectory = dir.path() / "group";
    c.clock = Clock::fixedAt(now);
    return c;
}

// A raw connection for looking at (or preparing) a database behind a store's back.
class RawDatabase {
public:
    explicit RawDatabase(const std::filesystem::path& file) {
        sqlite3_open(file.c_str(), &db_);
        sqlite3_busy_timeout(db_, 5000);
    }
    ~RawDatabase() { sqlite3_close_v2(db_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    // Runs SQL; returns SQLite's message, or "" on success.
    std::string exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK) return "";
        std::string message = error ? error : "error";
        sqlite3_free(error);
        return message;
    }
    // The first column of every row, as text.
    std::vector<std::string> column(const std::string& sql) {
        std::vector<std::string> values;
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr);
        while (statement && sqlite3_step(statement) == SQLITE_ROW) {
            const auto* text = sqlite3_column_text(statement, 0);
            values.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        sqlite3_finalize(statement);
        return values;
    }
    sqlite3* handle() { return db_; }

private:
    sqlite3* db_ = nullptr;
};

// Runs `child` in a forked process; its return value is the exit status.
inline pid_t inChildProcess(const std::function<int()>& child) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(child());
    return pid;
}

inline int exitStatus(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100 + WTERMSIG(status);
}

// What a call threw, or "(no failure)".
inline std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no failure)";
}

}  // namespace gaugepoint::testing
