#pragma once

// Notices when the stores changed (a scan, a pull, another process's commit) by polling their
// change stamp, and wakes those waiting: the event streams of open pages.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace gaugepoint::web {

class DashboardChangeFeed {
public:
    // Starts calling `stamp` (a fingerprint of the stores) every `interval` on a thread of its own.
    DashboardChangeFeed(std::function<std::uint64_t()> stamp, std::chrono::milliseconds interval);
    ~DashboardChangeFeed();  // stop(), then joins
    DashboardChangeFeed(const DashboardChangeFeed&) = delete;
    DashboardChangeFeed& operator=(const DashboardChangeFeed&) = delete;

    // How many changes were seen so far.
    std::uint64_t generation() const;
    // Waits until generation() differs from `seen`, stop() is called, or `timeout` passes;
    // returns generation(). Safe from any thread.
    std::uint64_t waitForChange(std::uint64_t seen, std::chrono::milliseconds timeout) const;
    // Wakes every waiter for good; later waits return at once.
    void stop();
    bool stopped() const;

private:
    void poll();

    std::function<std::uint64_t()> stamp_;
    std::chrono::milliseconds interval_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::uint64_t generation_ = 0;
    bool stopped_ = false;
    std::thread thread_;
};

}  // namespace gaugepoint::web
