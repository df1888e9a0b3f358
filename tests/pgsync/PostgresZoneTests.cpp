#include <gtest/gtest.h>

#include <thread>

#include "PostgresServer.hpp"
#include "gaugepoint/pgsync/PostgresRecordZone.hpp"
#include "gaugepoint/pgsync/PostgresRetry.hpp"

namespace gaugepoint {
namespace {

QuotaCloudRecord record(const std::string& name, std::int64_t value) {
    QuotaCloudRecord r;
    r.recordType = "GpTest";
    r.recordID.recordName = name;
    r.recordID.zoneID.zoneName = "zone";
    r.set("value", value);
    r.set("label", std::string("a \"quoted\" \\ text, {braces}"));
    r.set("bytes", QuotaCloudRecordBytes{0, 1, 255});
    r.set("at", testing::at("2026-11-21T13:19:00.25Z"));
    r.set("ratio", 0.1);
    return r;
}

class PostgresZone : public ::testing::Test {
protected:
    PostgresZone() {
        auto admin = server.superuser();
        PostgresRecordZone::setup(admin);
    }
    PostgresRecordZone zoneOf(const std::string& role) {
        return PostgresRecordZone{std::make_shared<PostgresConnection>(PostgresConnection::open(server.connectionString(role))),
                                  "zone"};
    }
    testing::PostgresServer server;
};

TEST_F(PostgresZone, SetupIsIdempotentEvenFromTwoMachinesAtOnce) {
    std::thread other([&] {
        auto c = server.superuser();
        PostgresRecordZone::setup(c);
    });
    auto c = server.superuser();
    PostgresRecordZone::setup(c);
    other.join();
    EXPECT_EQ(c.execute("SELECT count(*) FROM pg_policies WHERE schemaname = 'gaugepoint'").integer(0, 0), 2);
}

TEST_F(PostgresZone, WritesNameTheTagTheyLastSawAndStaleOnesAreRefused) {
    auto zone = zoneOf("alice");
    const auto first = zone.write({{record("r1", 1), std::nullopt}, {record("r2", 2), std::nullopt}});
    ASSERT_EQ(first.size(), 2u);
    ASSERT_TRUE(first[0].written && first[1].written);
    EXPECT_LT(first[0].changeSequence, first[1].changeSequence + 1);

    // Written again without naming the tag (a second machine's first write): refused, with the copy.
    const auto blind = zone.write({{record("r1", 10), std::nullopt}});
    ASSERT_FALSE(blind[0].written);
    ASSERT_TRUE(blind[0].current);
    EXPECT_EQ(blind[0].current->record, record("r1", 1));  // every field type survives the round trip
    EXPECT_EQ(blind[0].current->changeTag, first[0].changeTag);

    const auto second = zone.write({{record("r1", 11), first[0].changeTag}});
    ASSERT_TRUE(second[0].written);
    EXPECT_NE(second[0].changeTag, first[0].changeTag);
    EXPECT_FALSE(zone.write({{record("r1", 12), first[0].changeTag}})[0].written);  // the old tag no longer holds

    // Changes come in write order, each record once with its latest state.
    const auto changes = zone.changesAfter(0, 10);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].record.recordID.recordName, "r2");
    EXPECT_EQ(changes[1].record, record("r1", 11));
    EXPECT_EQ(zone.changesAfter(changes[0].changeSequence, 10).size(), 1u);
    EXPECT_EQ(zone.countsByType(), (std::map<std::string, std::int64_t>{{"GpTest", 2}}));
}

TEST_F(PostgresZone, ARoleSeesAndChangesOnlyItsOwnRows) {
    auto alice = zoneOf("alice");
    alice.write({{record("shared-name", 1), std::nullopt}});
    PostgresKeyValueStore aliceKeys{std::make_shared<PostgresConnection>(PostgresConnection::open(server.connectionString("alice")))};
    aliceKeys.setValue("epoch", boost::json::value("alice-epoch"));

    auto bob = zoneOf("bob");
    EXPECT_TRUE(bob.changesAfter(0, 100).empty());
    EXPECT_FALSE(bob.read("shared-name"));
    PostgresKeyValueStore bobKeys{std::make_shared<PostgresConnection>(PostgresConnection::open(server.connectionString("bob")))};
    EXPECT_FALSE(bobKeys.value("epoch"));
    // The same name is a record of bob's own; alice's is untouched.
    ASSERT_TRUE(bob.write({{record("shared-name", 2), std::nullopt}})[0].written);
    EXPECT_EQ(alice.read("shared-name")->record, record("shared-name", 1));
    // Rows in another role's name are refused outright; updates and deletes reach nothing.
    auto& c = bob.connection();
    try {
        c.execute("INSERT INTO gaugepoint.records (owner, zone_name, record_name, record_type, fields) "
                  "VALUES ('alice', 'zone', 'forged', 'GpTest', '[]')");
        ADD_FAILURE() << "a row in alice's name was accepted";
    } catch (const PostgresError& e) {
        EXPECT_EQ(e.sqlState(), "42501");
    }
    EXPECT_TRUE(c.execute("UPDATE gaugepoint.records SET fields = '[]' WHERE owner = 'alice' RETURNING 1").empty());
    EXPECT_TRUE(c.execute("DELETE FROM gaugepoint.key_values WHERE owner = 'alice' RETURNING 1").empty());
    EXPECT_EQ(aliceKeys.value("epoch"), boost::json::value("alice-epoch"));
}

TEST(PostgresRetry, EachFailureCountsAsTheCloudCodeOfItsNature) {
    const std::pair<const char*, std::int64_t> cases[] = {
        {"08006", 4}, {"08001", 3}, {"40001", 14}, {"40P01", 14}, {"55P03", 23}, {"53300", 6},
        {"57P01", 6}, {"57014", 34}, {"28P01", 10}, {"42501", 10}, {"42601", 1}, {"23505", 1}};
    for (const auto& [state, code] : cases) {
        EXPECT_EQ(PostgresRetry::cloudErrorCode(PostgresError(state, "x")), code) << state;
    }
    int attempts = 0;
    std::vector<std::uint64_t> waits;
    PostgresRetry::Settings settings;
    settings.maxRetries = 2;
    settings.sleep = [&](std::uint64_t millis) { waits.push_back(millis); };
    EXPECT_THROW(PostgresRetry::run(settings, [&]() -> int { ++attempts; throw PostgresError("08006", "lost"); },
                                    [](const PostgresError&) {}),
                 PostgresError);
    EXPECT_EQ(attempts, 3);
    EXPECT_EQ(waits, (std::vector<std::uint64_t>{500, 1000}));
    attempts = 0;
    EXPECT_THROW(PostgresRetry::run(settings, [&]() -> int { ++attempts; throw PostgresError("42601", "syntax"); },
                                    [](const PostgresError&) {}),
                 PostgresError);
    EXPECT_EQ(attempts, 1);
}

}  // namespace
}  // namespace gaugepoint
