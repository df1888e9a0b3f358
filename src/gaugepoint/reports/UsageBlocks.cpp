#include "gaugepoint/reports/UsageBlocks.hpp"

#include <algorithm>
#include <cmath>

namespace gaugepoint {
namespace {

constexpr double kBlockSeconds = 5 * 3600;
constexpr double kSecondsPerHour = 3600;

double seconds(Date date) { return secondsSince1970(date); }

Date topOfUTCHour(Date date) { return dateFromSeconds(std::floor(seconds(date) / kSecondsPerHour) * kSecondsPerHour); }

// Entries of one block being gathered.
struct OpenBlock {
    Date start;
    Date first, last;
    UsageTally tally;
};

void addPace(UsageBlock& block, Date first, Date now) {
    const double minutes = (seconds(*block.actualEndTime) - seconds(first)) / 60;
    if (!(minutes > 0)) return;
    const auto& t = block.totals;
    const double tokensPerMinute = double(t.tokens.totalTokens()) / minutes;
    const double costPerMinute = t.totalCost / minutes;
    block.burnRate = UsageBurnRate{tokensPerMinute, costPerMinute * 60};
    const double remaining = std::max(0.0, (seconds(block.endTime) - seconds(now)) / 60);
    block.projection = UsageBlockProjection{
        t.tokens.totalTokens() + std::int64_t(std::llround(tokensPerMinute * remaining)),
        t.totalCost + costPerMinute * remaining, std::int64_t(std::llround(remaining))};
}

UsageBlock closed(const OpenBlock& open, Date now) {
    UsageBlock block;
    block.startTime = open.start;
    block.endTime = dateFromSeconds(seconds(open.start) + kBlockSeconds);
    block.actualEndTime = open.last;
    block.totals = open.tally.totals();
    block.isActive = seconds(now) - seconds(open.last) < kBlockSeconds && now < block.endTime;
    if (block.isActive) addPace(block, open.first, now);
    return block;
}

UsageBlock gap(Date after, Date before) {
    UsageBlock block;
    block.isGap = true;
    block.startTime = dateFromSeconds(seconds(after) + kBlockSeconds);
    block.endTime = before;
    return block;
}

}  // namespace

std::vector<UsageBlock> usageBlocks(std::vector<QuotaUsageEntry> entries, Date now) {
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.timestamp < b.timestamp; });
    std::vector<UsageBlock> blocks;
    std::optional<OpenBlock> open;
    for (const auto& e : entries) {
        if (open) {
            const bool pastStart = seconds(e.timestamp) - seconds(open->start) > kBlockSeconds;
            const bool pastLast = seconds(e.timestamp) - seconds(open->last) > kBlockSeconds;
            if (pastStart || pastLast) {
                blocks.push_back(closed(*open, now));
                if (pastLast) blocks.push_back(gap(open->last, e.timestamp));
                open.reset();
            }
        }
        if (!open) open = OpenBlock{topOfUTCHour(e.timestamp), e.timestamp, e.timestamp, {}};
        open->last = e.timestamp;
        open->tally.add(e.model, 1, e.tokens, e.cacheWrite1hTokens, e.charges);
    }
    if (open) blocks.push_back(closed(*open, now));
    std::stable_sort(blocks.begin(), blocks.end(), [](const auto& a, const auto& b) { return a.startTime < b.startTime; });
    return blocks;
}

UsageTotals usageBlockTotals(const std::vector<UsageBlock>& blocks) {
    UsageTotals totals;
    for (const auto& block : blocks) {
        totals.tokens += block.totals.tokens;
        totals.cacheWrite1hTokens += block.totals.cacheWrite1hTokens;
        totals.charges += block.totals.charges;
        totals.totalCost += block.totals.totalCost;
        totals.unpricedTokens += block.totals.unpricedTokens;
        totals.entries += block.totals.entries;
    }
    return totals;
}

std::optional<UsageBlock> activeUsageBlock(const QuotaUsageEntryStore& store, const std::string& providerID, Date now) {
    // Read back a day, then four times as far each round, until the entries read begin after a
    // gap of more than five hours: the blocks after such a gap do not depend on what came before.
    // Entries after `now` (a clock pinned in the past) belong to no block active at `now`.
    const Date until = dateFromSeconds(seconds(now) + 1e-3);
    for (double span = 86400;; span *= 4) {
        const Date from = dateFromSeconds(seconds(now) - span);
        const bool everything = span > 400 * 365 * 86400.0;
        auto entries = store.countedEntries(providerID, everything ? std::nullopt : std::optional(from), until);
        if (entries.empty() || seconds(entries.back().timestamp) <= seconds(now) - kBlockSeconds) return std::nullopt;
        std::size_t begin = 0;
        bool anchored = everything || seconds(entries.front().timestamp) - seconds(from) > kBlockSeconds;
        for (std::size_t i = entries.size() - 1; !anchored && i > 0; --i) {
            if (seconds(entries[i].timestamp) - seconds(entries[i - 1].timestamp) > kBlockSeconds) {
                begin = i;
                anchored = true;
            }
        }
        if (!anchored) continue;
        entries.erase(entries.begin(), entries.begin() + std::ptrdiff_t(begin));
        auto blocks = usageBlocks(std::move(entries), now);
        for (auto& block : blocks) {
            if (block.isActive) return std::move(block);
        }
        return std::nullopt;
    }
}

}  // namespace gaugepoint
