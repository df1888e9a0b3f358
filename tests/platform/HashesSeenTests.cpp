#include <gtest/gtest.h>

#include <cstdint>

#include "gaugepoint/platform/HashesSeen.hpp"

namespace gaugepoint {
namespace {

// Through many growths and probe chains (hashes that share their low bits): each is new once
// and seen after; 0 and 1 share a slot, which reads as seen (a maybe, never a miss).
TEST(HashesSeen, EachHashIsNewOnceAndSeenAfterThroughGrowth) {
    HashesSeen set;
    for (std::uint64_t i = 1; i <= 20000; ++i) ASSERT_FALSE(set.seen(i << 40)) << i;
    for (std::uint64_t i = 1; i <= 20000; ++i) ASSERT_TRUE(set.seen(i << 40)) << i;
    EXPECT_FALSE(set.seen(0));
    EXPECT_TRUE(set.seen(1));
    EXPECT_FALSE(set.seen(~std::uint64_t{0}));
    EXPECT_TRUE(set.seen(~std::uint64_t{0}));
}

}  // namespace
}  // namespace gaugepoint
