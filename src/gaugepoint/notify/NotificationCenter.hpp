#pragma once

// In-process change notifications by name: a small observer registry.

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint {

class NotificationCenter {
public:
    using Observer = std::function<void()>;

    // The registry of this process.
    static NotificationCenter& shared();

    // Calls `observer` after every post of `name`, until removed; it must not throw. Returns the
    // token that removes it.
    std::uint64_t addObserver(std::string name, Observer observer);
    // Stops an observer; unknown tokens are ignored. An observer may remove itself while called.
    void removeObserver(std::uint64_t token);
    // Calls every observer of `name` on this thread, in the order they were added, and returns
    // how many were called. Observers run outside the registry's lock, so they may add or remove
    // observers and post again.
    std::size_t post(std::string_view name);

private:
    struct Entry {
        std::uint64_t token;
        std::string name;
        Observer observer;
    };
    std::mutex lock_;
    std::vector<Entry> observers_;
    std::uint64_t nextToken_ = 1;
};

}  // namespace gaugepoint
