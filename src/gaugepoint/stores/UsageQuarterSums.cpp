#include "gaugepoint/stores/UsageQuarterSums.hpp"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace gaugepoint {

namespace {

// Quarters stay far inside 64 bits, and their starts exact in a double.
constexpr double kLargestSeconds = 1e15;

bool addInto(std::int64_t& sum, std::int64_t value) { return !__builtin_add_overflow(sum, value, &sum); }

}  // namespace

std::int64_t UsageQuarterSums::quarterOf(double seconds) {
    auto quarter = static_cast<std::int64_t>(seconds / 900);  // truncated, as CAST does
    if (static_cast<double>(quarter * 900) > seconds) --quarter;
    return quarter;
}

std::uint32_t UsageQuarterSums::nameOf(std::string_view providerID, std::string_view model) {
    // Entries come in the table's order, so mostly of the model before.
    if (lastName_ < names_.size() && names_[lastName_].first == providerID && names_[lastName_].second == model) {
        return lastName_;
    }
    const auto found = std::find_if(names_.begin(), names_.end(),
                                    [&](const auto& n) { return n.first == providerID && n.second == model; });
    lastName_ = static_cast<std::uint32_t>(found - names_.begin());
    if (found == names_.end()) names_.emplace_back(providerID, model);
    return lastName_;
}

void UsageQuarterSums::add(const Entry& e) {
    if (!exact_) return;
    if (!(std::abs(e.timestamp) < kLargestSeconds)) {
        exact_ = false;
        return;
    }
    const bool reported = e.costUSD.value_or(0) > 0;
    const Key key{quarterOf(e.timestamp), nameOf(e.providerID, e.model), reported};
    auto [it, created] = sums_.try_emplace(key);
    Sum& sum = it->second;
    if (created) {
        sum.quarter = key.quarter;
        sum.providerID = names_[key.name].first;
        sum.model = names_[key.name].second;
        sum.reported = reported;
    }
    ++sum.entries;
    exact_ = addInto(sum.inputTokens, e.inputTokens) && addInto(sum.outputTokens, e.outputTokens) &&
             addInto(sum.cacheReadTokens, e.cacheReadTokens) && addInto(sum.cacheWriteTokens, e.cacheWriteTokens) &&
             addInto(sum.cacheWrite1hTokens, e.cacheWrite1hTokens);
    if (e.costUSD) sum.costUSD = sum.costUSD.value_or(0) + *e.costUSD;
    sum.charges += e.charges;
}

std::vector<UsageQuarterSums::Sum> UsageQuarterSums::sorted() const {
    std::vector<Sum> result;
    result.reserve(sums_.size());
    for (const auto& [key, sum] : sums_) result.push_back(sum);
    std::sort(result.begin(), result.end(), [](const Sum& a, const Sum& b) {
        return std::tie(a.quarter, a.providerID, a.model, a.reported) < std::tie(b.quarter, b.providerID, b.model, b.reported);
    });
    return result;
}

}  // namespace gaugepoint
