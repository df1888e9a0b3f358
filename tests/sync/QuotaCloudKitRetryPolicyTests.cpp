#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

#include "gaugepoint/sync/QuotaCloudKitRetryPolicy.hpp"

namespace gaugepoint {
namespace {

namespace Policy = QuotaCloudKitRetryPolicy;

TEST(CloudKitRetryPolicy, RetriesExactlyTheTransientCodes) {
    const std::set<std::int64_t> transient{3, 4, 6, 7, 14, 23, 34};
    for (std::int64_t code = -70; code <= 100; ++code) EXPECT_EQ(Policy::shouldRetry(code), transient.count(code) == 1) << code;
    EXPECT_FALSE(Policy::shouldRetry(std::numeric_limits<std::int64_t>::min()));
    EXPECT_FALSE(Policy::shouldRetry(std::numeric_limits<std::int64_t>::max()));
}

TEST(CloudKitRetryPolicy, BacksOffExponentiallyUpToTheCap) {
    const struct {
        std::int64_t attempt;
        std::uint64_t base, cap, delay;
    } cases[] = {
        {0, 500, 30000, 500},   {1, 500, 30000, 500},     {2, 500, 30000, 1000},
        {7, 500, 30000, 30000}, {-5, 500, 30000, 500},    {17, 500, UINT64_MAX, 500 * 65536ULL},
        {40, 500, UINT64_MAX, 500 * 65536ULL},            {std::numeric_limits<std::int64_t>::max(), 1, UINT64_MAX, 65536},
        {2, 0, 30000, 0},       {17, UINT64_MAX / 2, UINT64_MAX, UINT64_MAX},  // beyond 64 bits: the largest value
    };
    for (const auto& c : cases) EXPECT_EQ(Policy::retryDelayMillis({7, std::nullopt}, c.attempt, c.base, c.cap), c.delay) << c.attempt;
}

TEST(CloudKitRetryPolicy, HonoursTheServersRetryAfterBeyondTheCapButNotBelowTheBase) {
    const auto delay = [](double seconds, std::int64_t attempt = 3) {
        return Policy::retryDelayMillis({7, seconds}, attempt, 500, 30000);
    };
    EXPECT_EQ(delay(120), 120000u);
    EXPECT_EQ(delay(0.1), 500u);
    EXPECT_EQ(delay(-3), 500u);
    EXPECT_EQ(delay(2.0015), 2001u);  // whole milliseconds
    EXPECT_EQ(delay(1.8e16), 18000000000000000000u);
    // A wait that cannot be represented is ignored: the exponential rule applies.
    EXPECT_EQ(delay(std::nan("")), 2000u);
    EXPECT_EQ(delay(INFINITY), 2000u);
    EXPECT_EQ(delay(1.9e16), 2000u);
}

}  // namespace
}  // namespace gaugepoint
