#pragma once

// The one rule for failed cloud operations: whether to try again, and how long to wait first.
// Pure functions of their arguments; thread-safe.

#include <cstdint>
#include <optional>

namespace gaugepoint::QuotaCloudKitRetryPolicy {

// What the policy needs of a failed cloud operation.
struct Failure {
    // The cloud error code.
    std::int64_t code = 0;
    // The wait the server asked for, in seconds, when it sent one.
    std::optional<double> retryAfterSeconds;
};

// True exactly for the transient codes: 3 network unavailable, 4 network failure, 6 service
// unavailable, 7 request rate limited, 14 server record changed, 23 zone busy, 34 server
// response lost. Every other code, negative or 35 and above included, is not retried.
bool shouldRetry(std::int64_t code);

// Milliseconds to wait before the next attempt (`attempt` 1 is the first retry).
// With a server retry-after: max(whole milliseconds of it, baseMillis), a negative wait counting
// as 0; the cap is deliberately not applied, since a server that asks for a longer wait gets it.
// A retry-after that is not finite or does not fit in 64 unsigned bits is ignored.
// Otherwise: baseMillis × 2^(max(attempt, 1) − 1), the exponent at most 16, then at most
// capMillis (a product beyond 64 bits counts as the largest value before the cap).
std::uint64_t retryDelayMillis(const Failure& failure, std::int64_t attempt, std::uint64_t baseMillis,
                               std::uint64_t capMillis);

}  // namespace gaugepoint::QuotaCloudKitRetryPolicy
