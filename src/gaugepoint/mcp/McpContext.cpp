#include "gaugepoint/mcp/McpContext.hpp"

#include <chrono>
#include <filesystem>

#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/reports/LocalUsageScan.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::mcp {

McpContext::McpContext(McpOptions options) : options_(std::move(options)) {}

McpContext::~McpContext() {
    if (scan_.valid()) scan_.wait();
}

void McpContext::collectScan() {
    try {
        scan_.get();
        scanProblem_.reset();
    } catch (const std::exception& e) {
        scanProblem_ = std::string("the logs could not be scanned: ") + e.what();
    }
}

void McpContext::refresh() {
    if (!options_.scanBeforeReading) return;
    const auto wait = std::chrono::duration<double>(options_.scanWaitSeconds);
    if (scan_.valid()) {
        if (scan_.wait_for(wait) != std::future_status::ready) return;  // still running: read what is there
        collectScan();
    }
    const auto since = LocalUsageScan::secondsSinceLastScan(options_.configuration);
    if (since && *since >= 0 && *since < options_.scanIntervalSeconds) return;
    const std::optional<Date> publishAt = options_.pinnedNow ? std::nullopt : std::optional(now());
    scan_ = std::async(std::launch::async, [configuration = options_.configuration, scan = options_.scan, publishAt] {
        LocalUsageScan::run(configuration, scan, publishAt);
    });
    if (scan_.wait_for(wait) == std::future_status::ready) collectScan();
}

Date McpContext::now() const { return options_.pinnedNow.value_or(options_.configuration.clock.now()); }

QuotaFreshnessPolicy McpContext::freshnessPolicy() const {
    return QuotaFreshnessPolicy::fromDefaults(*options_.configuration.userDefaults);
}

LocalCalendar McpContext::calendar() const { return LocalCalendar::current(LocalCalendar::Kind::gregorian); }

QuotaUsageEntryStore McpContext::usageStore() const {
    return QuotaUsageEntryStore{QuotaSessionFileRegistry{options_.configuration}};
}

std::optional<QuotaSnapshot> McpContext::quotaSnapshot() const {
    const auto& sibling = TallybarSnapshotImporter::defaultSourceURL();
    std::error_code error;
    if (std::filesystem::exists(sibling, error)) {
        try {
            return TallybarSnapshotImporter{}.loadAndNormalize(sibling);
        } catch (const Error&) {
            // a damaged companion file: this machine's own reading still stands
        }
    }
    if (!options_.pinnedNow) {
        if (auto stored = LocalQuotaSnapshot::latest(options_.configuration)) return stored;
    }
    try {
        auto made = LocalQuotaSnapshot::make(options_.configuration, now(), calendar());
        if (!made.providers.empty()) return made;
    } catch (const Error&) {
        // nothing imported yet
    }
    return std::nullopt;
}

}  // namespace gaugepoint::mcp
