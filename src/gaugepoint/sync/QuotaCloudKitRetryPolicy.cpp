#include "gaugepoint/sync/QuotaCloudKitRetryPolicy.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace gaugepoint::QuotaCloudKitRetryPolicy {
namespace {

// One bit per retried code; the mask covers codes 0 to 34.
constexpr std::int64_t kHighestMaskedCode = 34;
constexpr std::uint64_t bit(int code) { return std::uint64_t{1} << code; }
constexpr std::uint64_t kRetriedCodes = bit(3) | bit(4) | bit(6) | bit(7) | bit(14) | bit(23) | bit(34);

// The exponential back-off doubles at most this many times.
constexpr std::int64_t kMaxShift = 16;

// Whole milliseconds of a server's retry-after, none when it cannot be represented.
std::optional<std::uint64_t> retryAfterMillis(double seconds) {
    const double millis = std::max(seconds * 1000.0, 0.0);  // also turns -0 into 0
    // 2^64 is exactly representable; anything at or above it does not fit.
    if (!std::isfinite(millis) || millis >= 18446744073709551616.0) return std::nullopt;
    return static_cast<std::uint64_t>(millis);
}

}  // namespace

bool shouldRetry(std::int64_t code) {
    if (code < 0 || code > kHighestMaskedCode) return false;
    return (kRetriedCodes & bit(int(code))) != 0;
}

std::uint64_t retryDelayMillis(const Failure& failure, std::int64_t attempt, std::uint64_t baseMillis,
                               std::uint64_t capMillis) {
    if (failure.retryAfterSeconds) {
        if (const auto millis = retryAfterMillis(*failure.retryAfterSeconds)) return std::max(*millis, baseMillis);
    }
    const int shift = int(std::min(std::max(attempt, std::int64_t{1}) - 1, kMaxShift));
    const std::uint64_t delay = baseMillis > (std::numeric_limits<std::uint64_t>::max() >> shift)
                                    ? std::numeric_limits<std::uint64_t>::max()
                                    : baseMillis << shift;
    return std::min(delay, capMillis);
}

}  // namespace gaugepoint::QuotaCloudKitRetryPolicy
