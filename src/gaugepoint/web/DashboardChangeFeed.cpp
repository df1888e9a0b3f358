#include "gaugepoint/web/DashboardChangeFeed.hpp"

namespace gaugepoint::web {

DashboardChangeFeed::DashboardChangeFeed(std::function<std::uint64_t()> stamp, std::chrono::milliseconds interval)
    : stamp_(std::move(stamp)), interval_(interval), thread_([this] { poll(); }) {}

DashboardChangeFeed::~DashboardChangeFeed() {
    stop();
    thread_.join();
}

std::uint64_t DashboardChangeFeed::generation() const {
    std::lock_guard lock(mutex_);
    return generation_;
}

std::uint64_t DashboardChangeFeed::waitForChange(std::uint64_t seen, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return stopped_ || generation_ != seen; });
    return generation_;
}

void DashboardChangeFeed::stop() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
}

bool DashboardChangeFeed::stopped() const {
    std::lock_guard lock(mutex_);
    return stopped_;
}

void DashboardChangeFeed::poll() {
    // The stamp is read outside the lock: it stats files, and waiters must not wait on the disk.
    std::uint64_t stamp = stamp_();
    std::unique_lock lock(mutex_);
    while (!stopped_) {
        changed_.wait_for(lock, interval_, [this] { return stopped_; });
        if (stopped_) break;
        lock.unlock();
        const std::uint64_t now = stamp_();
        lock.lock();
        if (now != stamp) {
            stamp = now;
            ++generation_;
            changed_.notify_all();
        }
    }
}

}  // namespace gaugepoint::web
