#include "gaugepoint/notify/NotificationCenter.hpp"

#include <algorithm>

namespace gaugepoint {

NotificationCenter& NotificationCenter::shared() {
    static NotificationCenter center;
    return center;
}

std::uint64_t NotificationCenter::addObserver(std::string name, Observer observer) {
    std::lock_guard guard{lock_};
    const std::uint64_t token = nextToken_++;
    observers_.push_back({token, std::move(name), std::move(observer)});
    return token;
}

void NotificationCenter::removeObserver(std::uint64_t token) {
    std::lock_guard guard{lock_};
    std::erase_if(observers_, [&](const Entry& entry) { return entry.token == token; });
}

std::size_t NotificationCenter::post(std::string_view name) {
    std::vector<Observer> toCall;
    {
        std::lock_guard guard{lock_};
        for (const auto& entry : observers_) {
            if (entry.name == name) toCall.push_back(entry.observer);
        }
    }
    for (const auto& observer : toCall) observer();
    return toCall.size();
}

}  // namespace gaugepoint
