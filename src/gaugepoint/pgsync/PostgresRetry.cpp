#include "gaugepoint/pgsync/PostgresRetry.hpp"

#include <chrono>
#include <thread>

namespace gaugepoint::PostgresRetry {
namespace {

// The cloud codes of QuotaCloudKitRetryPolicy used here.
constexpr std::int64_t kInternalError = 1;
constexpr std::int64_t kNetworkUnavailable = 3;
constexpr std::int64_t kNetworkFailure = 4;
constexpr std::int64_t kServiceUnavailable = 6;
constexpr std::int64_t kPermissionFailure = 10;
constexpr std::int64_t kServerRecordChanged = 14;
constexpr std::int64_t kZoneBusy = 23;
constexpr std::int64_t kServerResponseLost = 34;

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

std::int64_t cloudErrorCode(const PostgresError& error) {
    const std::string& state = error.sqlState();
    if (state == "08001" || state == "08004") return kNetworkUnavailable;
    if (startsWith(state, "08")) return kNetworkFailure;
    if (state == "40001" || state == "40P01") return kServerRecordChanged;
    if (state == "55P03") return kZoneBusy;
    if (startsWith(state, "53") || state == "57P01" || state == "57P02" || state == "57P03") return kServiceUnavailable;
    if (state == "57014") return kServerResponseLost;
    if (startsWith(state, "28") || state == "42501") return kPermissionFailure;
    return kInternalError;
}

void sleepFor(const Settings& settings, std::uint64_t millis) {
    if (settings.sleep) return settings.sleep(millis);
    std::this_thread::sleep_for(std::chrono::milliseconds(millis));
}

}  // namespace gaugepoint::PostgresRetry
