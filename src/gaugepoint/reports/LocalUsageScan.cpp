#include "gaugepoint/reports/LocalUsageScan.hpp"

#include <chrono>
#include <filesystem>
#include <fstream>

#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"

namespace gaugepoint::LocalUsageScan {
namespace {

std::optional<std::filesystem::path> stampPath(const QuotaSyncConfiguration& configuration) {
    const auto directory = configuration.resolvedAppGroupDirectory();
    if (!directory) return std::nullopt;
    return *directory / stampFilename;
}

// A stamp that cannot be written only costs a scan too many later: it is not an error.
void stamp(const QuotaSyncConfiguration& configuration) noexcept {
    try {
        const auto path = stampPath(configuration);
        if (!path) return;
        std::ofstream{*path, std::ios::app};
        std::error_code error;
        std::filesystem::last_write_time(*path, std::filesystem::file_time_type::clock::now(), error);
    } catch (...) {
    }
}

}  // namespace

Result run(const QuotaSyncConfiguration& configuration, const QuotaScanOptions& options, std::optional<Date> publishAt) {
    Result result{QuotaLogScanner{configuration}.scan(options), std::nullopt};
    if (publishAt) {
        result.snapshot = LocalQuotaSnapshot::make(configuration, *publishAt,
                                                   LocalCalendar::current(LocalCalendar::Kind::gregorian));
        LocalQuotaSnapshot::publish(*result.snapshot, configuration);
    }
    stamp(configuration);
    return result;
}

std::optional<double> secondsSinceLastScan(const QuotaSyncConfiguration& configuration) noexcept {
    try {
        const auto path = stampPath(configuration);
        if (!path) return std::nullopt;
        std::error_code error;
        const auto written = std::filesystem::last_write_time(*path, error);
        if (error) return std::nullopt;
        const auto age = std::filesystem::file_time_type::clock::now() - written;
        return std::chrono::duration<double>(age).count();
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace gaugepoint::LocalUsageScan
