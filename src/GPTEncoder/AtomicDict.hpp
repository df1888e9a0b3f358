#pragma once

// A dictionary that several threads may read and write at once: one std::shared_mutex guards the
// map, so lookups share it and stores take it alone. Ordering between racing writers is not
// observable by design: callers store values that depend only on the key.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <concepts>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace gaugepoint {

// std::hash, except for std::string keys: a transparent hash (a lookup by std::string_view builds
// no string) that is quick on short keys. It is deliberately not noexcept: libstdc++ then keeps
// each node's hash, so walking a bucket compares stored hashes instead of rehashing keys.
template <class Key>
struct AtomicDictHash : std::hash<Key> {};

template <>
struct AtomicDictHash<std::string> {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const {
        std::uint64_t h = 0x9E3779B97F4A7C15ull ^ s.size();
        std::size_t i = 0;
        for (; i + 8 <= s.size(); i += 8) h = std::rotl((h ^ load(s.data() + i, 8)) * 0xFF51AFD7ED558CCDull, 29);
        const std::size_t n = s.size() - i;  // the last 0-7 bytes, in at most two loads
        const std::uint64_t tail = n >= 4 ? load(s.data() + i, 4) << 32 | load(s.data() + s.size() - 4, 4)
                                 : n > 0  ? load(s.data() + i, 1) << 16 | load(s.data() + i + n / 2, 1) << 8 | load(s.data() + s.size() - 1, 1)
                                          : 0;
        h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
        return static_cast<std::size_t>(h ^ (h >> 32));
    }

private:
    static std::uint64_t load(const char* p, std::size_t n) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, n);
        return word;
    }
};

template <class Key, class Value>
class AtomicDict {
public:
    // The value stored under key, if any (a copy, so it stays valid after later writes).
    template <class K = Key>
    std::optional<Value> lookup(const K& key) const {
        std::shared_lock lock(mutex_);
        const auto it = map_.find(key);
        if (it == map_.end()) return std::nullopt;
        return it->second;
    }

    // Stores value under key, replacing any earlier value.
    void store(Key key, Value value) {
        std::unique_lock lock(mutex_);
        map_.insert_or_assign(std::move(key), std::move(value));
    }

    // Removes key; returns whether it was there.
    template <class K = Key>
    bool remove(const K& key) {
        std::unique_lock lock(mutex_);
        const auto it = map_.find(key);
        if (it == map_.end()) return false;
        map_.erase(it);
        return true;
    }

    // Removes every entry.
    void removeAll() {
        std::unique_lock lock(mutex_);
        map_.clear();
    }

    std::size_t count() const {
        std::shared_lock lock(mutex_);
        return map_.size();
    }

    // The contents as ["key": "value", ...], sorted by key when keys are ordered, so the text
    // is stable across runs. Strings are quoted; other types are printed with operator<<.
    std::string description() const {
        std::vector<std::pair<Key, Value>> entries;
        {
            std::shared_lock lock(mutex_);
            entries.assign(map_.begin(), map_.end());
        }
        if constexpr (std::totally_ordered<Key>)
            std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
        std::ostringstream out;
        out << '[';
        for (std::size_t i = 0; i < entries.size(); ++i) {
            out << (i == 0 ? "" : ", ");
            describe(out, entries[i].first);
            out << ": ";
            describe(out, entries[i].second);
        }
        out << (entries.empty() ? ":]" : "]");
        return out.str();
    }

private:
    template <class T>
    static void describe(std::ostringstream& out, const T& value) {
        if constexpr (std::convertible_to<const T&, std::string_view>) out << '"' << std::string_view(value) << '"';
        else out << value;
    }

    mutable std::shared_mutex mutex_;
    std::unordered_map<Key, Value, AtomicDictHash<Key>, std::equal_to<>> map_;
};

}  // namespace gaugepoint
