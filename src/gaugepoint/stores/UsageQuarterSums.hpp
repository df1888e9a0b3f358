#pragma once

// Counted usage summed per quarter hour (UTC), provider, model and whether the entry reported a
// cost, as the usage store keeps it, made in memory from entries given one at a time: another
// pass over every counted entry makes them beside its own work and spares the store a pass.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "gaugepoint/model/QuotaUsageRecords.hpp"

namespace gaugepoint {

class UsageQuarterSums {
public:
    struct Entry {
        std::string_view providerID, model;
        double timestamp = 0;  // seconds since 1970
        std::int64_t inputTokens = 0, outputTokens = 0, cacheReadTokens = 0, cacheWriteTokens = 0;
        std::int64_t cacheWrite1hTokens = 0;
        std::optional<double> costUSD;
        QuotaUsageCharges charges;
    };
    void add(const Entry& entry);

    // False once a sum left 64 bits or a time left the quarters an integer can count: the store
    // then sums in SQL, which reports what it must.
    bool exact() const { return exact_; }

    struct Sum {
        std::int64_t quarter = 0;  // seconds since 1970 / 900, floored
        std::string providerID, model;
        bool reported = false;     // the entries reported a cost above zero
        std::int64_t entries = 0, inputTokens = 0, outputTokens = 0, cacheReadTokens = 0, cacheWriteTokens = 0;
        std::optional<double> costUSD;  // none when no entry had one
        std::int64_t cacheWrite1hTokens = 0;
        QuotaUsageCharges charges;
    };
    // In the key order of the stored sums: quarter, provider, model, reported.
    std::vector<Sum> sorted() const;

    // The quarter hour of a time, as the store's SQL floors it: the division's rounding is
    // corrected by comparing back, so a time just below a boundary stays in the quarter before.
    static std::int64_t quarterOf(double seconds);

private:
    struct Key {
        std::int64_t quarter;
        std::uint32_t name;  // index in names_
        bool reported;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const {
            return std::hash<std::uint64_t>{}(std::uint64_t(k.quarter) * 1000003 + k.name * 2u + (k.reported ? 1u : 0u));
        }
    };
    std::uint32_t nameOf(std::string_view providerID, std::string_view model);

    std::vector<std::pair<std::string, std::string>> names_;  // (provider, model), few
    std::uint32_t lastName_ = 0;
    std::unordered_map<Key, Sum, KeyHash> sums_;
    bool exact_ = true;
};

}  // namespace gaugepoint
