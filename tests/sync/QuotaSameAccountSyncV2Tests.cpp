#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"

namespace gaugepoint {
namespace {

namespace V2 = QuotaSameAccountSyncV2;
using testing::at;

const Uuid kFirst = *Uuid::parse("1B4E28BA-2FA1-41D2-883F-0016D3CCA427");
const Uuid kSecond = *Uuid::parse("9e82ad36-16f0-4d2a-910b-8af521169939");

// A cloud store that refuses every write, as an unreachable backend would.
class RefusingStore final : public UbiquitousKeyValueStore {
public:
    std::optional<boost::json::value> value(std::string_view) const override { return std::nullopt; }
    void setValue(std::string_view, const boost::json::value&) override { throw Error("offline"); }
    void removeValue(std::string_view) override { throw Error("offline"); }
};

TEST(SameAccountEpoch, IsMillisecondsRoundedHalfAwayFromZeroAndTheLowercaseUuid) {
    EXPECT_EQ(V2::makeEpoch(at("2026-11-21T09:19:00Z"), kFirst), "v2-1795252740000-1b4e28ba-2fa1-41d2-883f-0016d3cca427");
    EXPECT_EQ(V2::makeEpoch(dateFromSeconds(0.0015), kFirst).substr(0, 5), "v2-2-");
    EXPECT_EQ(V2::makeEpoch(dateFromSeconds(0.0014), kFirst).substr(0, 5), "v2-1-");
    EXPECT_EQ(V2::makeEpoch(dateFromSeconds(-0.0015), kFirst).substr(0, 6), "v2--2-");
    // The same millisecond, told apart by the UUID.
    const Date now = at("2026-11-21T09:19:00.123Z");
    EXPECT_NE(V2::makeEpoch(now, kFirst), V2::makeEpoch(now, kSecond));
    EXPECT_NE(V2::makeEpoch(now, Uuid::random()), V2::makeEpoch(now, Uuid::random()));
}

TEST(SameAccountEpoch, ResetWritesBothStoresAndEachReadsItBack) {
    InMemoryUserDefaults defaults;
    InMemoryUbiquitousKeyValueStore cloud;
    EXPECT_FALSE(V2::currentEpoch(defaults));
    EXPECT_FALSE(V2::cloudEpoch(cloud));
    const Date now = at("2026-11-21T09:19:00.123456789Z");
    const auto state = V2::markDestructiveReset(defaults, &cloud, now, kFirst);
    EXPECT_EQ(state, (V2::EpochState{V2::makeEpoch(now, kFirst), 2, now, true, true}));
    EXPECT_EQ(V2::currentEpoch(defaults), (V2::EpochState{state.epoch, 2, now, std::nullopt, std::nullopt}));
    EXPECT_EQ(V2::cloudEpoch(cloud), state.epoch);
    EXPECT_EQ(cloud.value(V2::Key::cloudSchemaVersion), boost::json::value(2));

    // Without a cloud store only the local keys change, and the cloud flag stays absent.
    const auto local = V2::markDestructiveReset(defaults, nullptr, at("2026-11-22T00:00:00Z"), kSecond);
    EXPECT_EQ(local.cloudMirrorSynchronized, std::nullopt);
    EXPECT_EQ(V2::currentEpoch(defaults)->epoch, local.epoch);
    EXPECT_EQ(V2::cloudEpoch(cloud), state.epoch);
}

TEST(SameAccountEpoch, BootstrapReconcilesLocalAndCloudWithTheCloudWinning) {
    const Date t1 = at("2026-11-21T09:00:00Z"), t2 = at("2026-11-21T10:00:00Z"), t3 = at("2026-11-21T11:00:00Z");
    InMemoryUserDefaults defaults;
    InMemoryUbiquitousKeyValueStore cloud;

    // Neither has one: a new epoch in both.
    const auto created = V2::ensureBootstrapped(defaults, &cloud, t1, kFirst);
    EXPECT_EQ(created, (V2::EpochState{V2::makeEpoch(t1, kFirst), 2, t1, true, true}));
    // Both agree: unchanged, whatever the clock and UUID say now.
    EXPECT_EQ(V2::ensureBootstrapped(defaults, &cloud, t2, kSecond), created);

    // Another machine reset: its cloud epoch replaces the local one, reset time included.
    InMemoryUserDefaults otherMachine;
    const auto reset = V2::markDestructiveReset(otherMachine, &cloud, t2, kSecond);
    const auto adopted = V2::ensureBootstrapped(defaults, &cloud, t3, kFirst);
    EXPECT_EQ(adopted, reset);
    EXPECT_EQ(V2::currentEpoch(defaults)->resetAt, t2);

    // Only the local one exists (a fresh cloud account): it is published.
    InMemoryUbiquitousKeyValueStore freshCloud;
    EXPECT_EQ(V2::ensureBootstrapped(defaults, &freshCloud, t3, kFirst).epoch, reset.epoch);
    EXPECT_EQ(V2::cloudEpoch(freshCloud), reset.epoch);

    // A cloud that holds only an epoch still decides; the missing parts are this schema and now.
    InMemoryUbiquitousKeyValueStore sparse;
    sparse.setValue(V2::Key::cloudSyncEpoch, "v2-5-foreign");
    EXPECT_EQ(V2::ensureBootstrapped(defaults, &sparse, t3, kFirst), (V2::EpochState{"v2-5-foreign", 2, t3, true, true}));
}

TEST(SameAccountEpoch, MalformedStoredValuesReadAsNoEpochAndFailedWritesShowInTheFlags) {
    InMemoryUserDefaults defaults;
    defaults.setValue(V2::Key::localSyncEpoch, "v2-1-x");
    defaults.setValue(V2::Key::localSchemaVersion, "two");
    defaults.setValue(V2::Key::localResetAt, "2026-11-21T09:00:00Z");
    EXPECT_FALSE(V2::currentEpoch(defaults));  // the schema version is not a number
    defaults.setValue(V2::Key::localSchemaVersion, 2);
    EXPECT_EQ(V2::currentEpoch(defaults)->resetAt, at("2026-11-21T09:00:00Z"));  // an ISO 8601 text is read
    defaults.setValue(V2::Key::localSyncEpoch, "");
    EXPECT_FALSE(V2::currentEpoch(defaults));
    InMemoryUbiquitousKeyValueStore cloud;
    cloud.setValue(V2::Key::cloudSyncEpoch, 42);
    EXPECT_FALSE(V2::cloudEpoch(cloud));

    RefusingStore offline;
    defaults.setValue(V2::Key::localSyncEpoch, "v2-1-x");
    const auto kept = V2::ensureBootstrapped(defaults, &offline, at("2026-11-21T12:00:00Z"), kFirst);
    EXPECT_EQ(kept.epoch, "v2-1-x");
    EXPECT_EQ(kept.localDefaultsSynchronized, true);
    EXPECT_EQ(kept.cloudMirrorSynchronized, false);
    EXPECT_EQ(V2::markDestructiveReset(defaults, &offline, at("2026-11-21T12:00:00Z"), kFirst).cloudMirrorSynchronized, false);
}

}  // namespace
}  // namespace gaugepoint
