#include <gtest/gtest.h>

#include <regex>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::CommandResult;
using testing::ScratchDirectory;

const std::string kExamples = GAUGEPOINT_EXAMPLES_DIR;
const std::string kEpoch = "v2-1795252740000-1b4e28ba-2fa1-41d2-883f-0016d3cca427";

CommandResult run(const ScratchDirectory& dir, std::vector<std::string> args, const std::string& input = {}) {
    args.insert(args.end(), {"--app-group-dir", (dir / "group").string()});
    ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    return testing::gaugepoint(args, input);
}

TEST(SyncCommand, PrintsRecordNames) {
    EXPECT_EQ(testing::gaugepoint({"sync", "record-name", "--type", "session", "workstation",
                                   " ccd55d3f-40dc-4663-a6b9-e07bb0a68984\n"})
                  .out,
              "session:5f8272af5ae417a1b1d7175dc30dec0fde0415b6a80c93a6d07606fa15244709\n");
    const auto id = json::parse(testing::gaugepoint({"sync", "record-name", "--type", "source", "workstation", "--json"}).out);
    EXPECT_EQ(id.at("recordName"), "source:d195d36bd79da7df853b78f0b539b75f002819330c13b6438bbbe89a8f4f267a");
    EXPECT_EQ(id.at("zoneName"), "GaugepointSameAccountV2");
    EXPECT_EQ(testing::gaugepoint({"sync", "record-name", "--type", "transcript", "workstation"}).exitCode, 2);
    EXPECT_EQ(testing::gaugepoint({"sync", "record-name", "--type", "notify", "a", "b"}).exitCode, 2);
    EXPECT_EQ(testing::gaugepoint({"sync", "record-name", "--type", "device", "a"}).exitCode, 2);
}

// Each document encodes to a record whose decoding gives the document back.
TEST(SyncCommand, EncodedRecordsDecodeToTheirDocuments) {
    ScratchDirectory dir;
    const std::vector<std::pair<std::string, std::string>> kinds{{"snapshot-hot", "source-snapshot-record.json"},
                                                                 {"session", "session-descriptor.json"},
                                                                 {"transcript", "transcript-bundle.json"},
                                                                 {"notify", "notify-envelope.json"}};
    for (const auto& [kind, file] : kinds) {
        const auto document = kExamples + "/" + file;
        const auto encoded = testing::gaugepoint({"sync", "encode", kind, document, "--epoch", kEpoch});
        ASSERT_EQ(encoded.exitCode, 0) << kind << ": " << encoded.err;
        const auto record = json::parse(encoded.out);
        EXPECT_EQ(record.at("fields").at(1).at("value"), kEpoch.c_str());
        const auto decoded = testing::gaugepoint({"sync", "decode", "-"}, encoded.out);
        ASSERT_EQ(decoded.exitCode, 0) << kind << ": " << decoded.err;
        EXPECT_EQ(json::parse(decoded.out), json::parse(testing::readFile(document))) << kind;
        EXPECT_EQ(testing::gaugepoint({"sync", "decode", "-", "--type", kind}, encoded.out).out, decoded.out);
    }
    EXPECT_EQ(testing::gaugepoint({"sync", "encode", "session", kExamples + "/session-descriptor.json"}).exitCode, 2);
}

TEST(SyncCommand, DecodingFailuresAreOneLine) {
    const auto encoded = testing::gaugepoint({"sync", "encode", "notify", kExamples + "/notify-envelope.json", "--epoch", kEpoch}).out;
    const auto wrongType = testing::gaugepoint({"sync", "decode", "-", "--type", "snapshot-hot"}, encoded);
    EXPECT_EQ(wrongType.exitCode, 1);
    EXPECT_EQ(wrongType.err, "gaugepoint: Unexpected CloudKit record type: expected GpSnapshotHot, got GpNotifyEvent.\n");

    const auto form = testing::gaugepoint({"sync", "decode", "-"}, R"({"recordType":"GpNotifyEvent"})");
    EXPECT_EQ(form.exitCode, 1);
    EXPECT_EQ(form.err, "gaugepoint: cannot decode standard input: recordName: required key is missing\n");
    const auto manifest = testing::gaugepoint(
        {"sync", "decode", "-"}, R"({"recordType":"GpSyncManifest","recordName":"m","zoneName":"z","ownerName":"o","fields":[]})");
    EXPECT_EQ(manifest.exitCode, 1);
    EXPECT_EQ(manifest.err, "gaugepoint: no decoder for record type \"GpSyncManifest\" (give --type to choose one)\n");
}

TEST(SyncCommand, EpochIsBootstrappedKeptResetAndAdoptedFromTheCloudStore) {
    ScratchDirectory dir;
    const auto first = run(dir, {"sync", "epoch", "--json", "--now", "2026-11-21T09:19:00Z"});
    ASSERT_EQ(first.exitCode, 0) << first.err;
    const auto state = json::parse(first.out);
    const std::string epoch(state.at("epoch").as_string());
    EXPECT_TRUE(std::regex_match(epoch, std::regex("v2-1795252740000-[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}")))
        << epoch;
    EXPECT_EQ(state.at("schemaVersion"), 2);
    EXPECT_EQ(state.at("resetAt"), "2026-11-21T09:19:00Z");
    EXPECT_EQ(state.at("cloudMirrorSynchronized"), true);
    const auto cloud = json::parse(testing::readFile(dir / "group" / "quota-kvs.json"));
    EXPECT_EQ(cloud.at("quota_same_account_sync_v2_epoch"), epoch.c_str());

    const auto again = run(dir, {"sync", "epoch"});
    EXPECT_EQ(again.out.substr(0, again.out.find('\n')), "epoch           " + epoch);
    EXPECT_NE(again.out.find("reset at        2026-11-21 09:19:00\n"), std::string::npos);

    const auto reset = json::parse(run(dir, {"sync", "epoch", "--reset", "--json", "--now", "2026-11-22T00:00:00Z"}).out);
    EXPECT_NE(reset.at("epoch"), epoch.c_str());
    EXPECT_EQ(reset.at("resetAt"), "2026-11-22T00:00:00Z");

    // Another machine's reset arrives through the cloud store: it is adopted.
    testing::writeFile(dir / "group" / "quota-kvs.json",
                       R"({"quota_same_account_sync_v2_epoch":"v2-1-other","quota_same_account_sync_v2_schema_version":2,)"
                       R"("quota_same_account_sync_v2_reset_at":1795300000})");
    const auto adopted = json::parse(run(dir, {"sync", "epoch", "--json"}).out);
    EXPECT_EQ(adopted.at("epoch"), "v2-1-other");
    EXPECT_EQ(adopted.at("resetAt"), "2026-11-21T22:26:40Z");
    EXPECT_EQ(json::parse(testing::readFile(dir / "config" / "gaugepoint" / "defaults.json")).at("quota.same_account_sync.v2.epoch"),
              "v2-1-other");
}

TEST(SyncCommand, RetryPrintsTheDecisionAndTheDelay) {
    EXPECT_EQ(testing::gaugepoint({"sync", "retry", "--code", "7", "--attempt", "2"}).out, "retry  yes\ndelay  1000 ms\n");
    EXPECT_EQ(testing::gaugepoint({"sync", "retry", "--code", "9", "--attempt", "7", "--json"}).out,
              "{\"shouldRetry\":false,\"delayMillis\":30000}\n");
    EXPECT_EQ(testing::gaugepoint({"sync", "retry", "--code", "7", "--attempt", "1", "--retry-after", "120", "--json"}).out,
              "{\"shouldRetry\":true,\"delayMillis\":120000}\n");
    EXPECT_EQ(testing::gaugepoint({"sync", "retry", "--code", "23", "--attempt", "40", "--base", "1000", "--cap",
                                   "18446744073709551615", "--json"})
                  .out,
              "{\"shouldRetry\":true,\"delayMillis\":65536000}\n");
    EXPECT_EQ(testing::gaugepoint({"sync", "retry", "--code", "7", "--attempt", "1", "--base", "-5"}).exitCode, 2);
    EXPECT_EQ(testing::gaugepoint({"sync", "retry", "--code", "7"}).exitCode, 2);
}

}  // namespace
}  // namespace gaugepoint
