#pragma once

// Entries, stores and second processes for the inbox tests.

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "../stores/StoreTestSupport.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"

namespace gaugepoint::testing {

// 2026-11-21T12:00:00Z, the clock of configurationIn().
constexpr double kNoon = 1795262400;

inline QuotaNotifyArchiveEntry entry(const std::string& id, double createdAt, const std::string& thread = "t",
                                     const std::string& category = "general", std::optional<std::string> group = {}) {
    QuotaNotifyArchiveEntry e;
    e.envelopeID = id;
    e.threadID = thread;
    e.createdAt = dateFromSeconds(createdAt);
    e.archivedAt = dateFromSeconds(createdAt + 1);
    e.origin = "local";
    e.title = "title " + id;
    e.category = category;
    e.groupID = std::move(group);
    return e;
}

inline std::vector<std::string> idsOf(const std::vector<QuotaNotifyArchiveEntry>& entries) {
    std::vector<std::string> ids;
    for (const auto& e : entries) ids.push_back(e.envelopeID);
    return ids;
}

// A second process, forked when this is made and so before this process opens the inbox (an
// open connection, and SQLite's lock bookkeeping of its file, must not cross a fork). run()
// lets it do `work` and returns its exit status.
class SecondProcess {
public:
    explicit SecondProcess(const std::function<int()>& work) {
        EXPECT_EQ(::pipe(go_), 0);
        pid_ = inChildProcess([&] {
            ::close(go_[1]);  // so that a parent that dies without a word ends the wait
            char byte;
            return ::read(go_[0], &byte, 1) == 1 ? work() : 0;
        });
    }
    ~SecondProcess() { finish(false); }
    int run() { return finish(true); }

private:
    int finish(bool go) {
        if (pid_ < 0) return -1;
        if (go) (void)::write(go_[1], "x", 1);
        ::close(go_[0]);
        ::close(go_[1]);
        return exitStatus(std::exchange(pid_, -1));
    }

    int go_[2] = {-1, -1};
    pid_t pid_ = -1;
};

}  // namespace gaugepoint::testing
