#include <gtest/gtest.h>

#include <limits>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaSessionCatalog.hpp"
#include "gaugepoint/model/QuotaSessionTranscript.hpp"

namespace gaugepoint {
namespace {

using testing::at;

QuotaSessionDescriptor descriptor(std::string source, std::string id, std::string title = "t") {
    QuotaSessionDescriptor d;
    d.id = std::move(id);
    d.sourceID = std::move(source);
    d.sourceName = "Studio";
    d.provider = {"claude", "Claude"};
    d.title = std::move(title);
    return d;
}

std::string decodeError(std::string_view text) {
    try {
        json::decode<QuotaSessionDescriptor>(text);
    } catch (const json::DecodingError& e) {
        return e.what();
    }
    return "(decoded)";
}

TEST(QuotaSessionDocuments, EveryDocumentRoundTripsThroughJSON) {
    QuotaSessionMessage message;
    message.id = "m1";
    message.role = QuotaSessionRole::toolResult;
    message.text = "done ✓";
    message.timestamp = at("2026-11-21T10:00:00.25Z");
    message.model = QuotaSessionModelIdentity{"claude-sonnet-4-5", "Claude Sonnet 4.5"};
    message.tokenUsage = QuotaSessionTokenUsage{10, 20, 30, 40, 0.5};
    message.toolCalls = {{"c1", "Bash", at("2026-11-21T10:00:01Z"), "ls", true}};
    message.metadata = QuotaSessionMessageMetadata{};
    message.metadata->tokenUsageSource = QuotaSessionTokenUsageSource::cumulativeDelta;
    message.metadata->providerLockTimestamp = at("2026-11-21T09:00:00Z");
    message.metadata->thinkingTokens = 7;

    auto session = descriptor("mac", "s1");
    session.startedAt = at("2026-11-21T09:00:00Z");
    session.topModels = {{"claude-sonnet-4-5", "Claude Sonnet 4.5", 1, 3, {1, 2, 3, 4, std::nullopt}}};
    session.syncMode = QuotaSessionSyncMode::fullTranscript;

    QuotaSessionTranscriptBundle bundle{"s1", "mac", "Studio", {"claude", "Claude"}, "t", "/src", QuotaSessionSyncMode::promptsOnly,
                                        at("2026-11-21T11:00:00Z"), {message}};
    QuotaSessionTranscriptShardManifest manifest;
    manifest.id = "s1";
    manifest.exportedAt = at("2026-11-21T11:00:00Z");
    manifest.summary.dayBreakdowns = {{at("2026-11-21T00:00:00Z"), 1, 2, {}, session.topModels, {{"Bash", "Bash", 4, 1}}}};
    manifest.summary.lastModelID = "claude-sonnet-4-5";
    manifest.shardCount = 3;
    QuotaSessionCatalog catalog{1, {session}, {}, at("2026-11-21T12:00:00Z")};
    catalog.aggregates.push_back({"a", "mac", "Studio", {"codex", "Codex"}, at("2026-11-16T00:00:00Z"),
                                  QuotaSessionGranularity::week, 4, 5, 6, {}, session.topModels, {}});

    EXPECT_EQ(json::decode<QuotaSessionMessage>(json::encode(message)), message);
    EXPECT_EQ(json::decode<QuotaSessionTranscriptBundle>(json::encode(bundle)), bundle);
    EXPECT_EQ(json::decode<QuotaSessionTranscriptShardManifest>(json::encode(manifest)), manifest);
    EXPECT_EQ(json::decode<QuotaSessionTranscriptEnvelope>(json::encode(QuotaSessionTranscriptEnvelope{1, at("2026-11-21T11:00:00Z"), {bundle}})).bundles[0], bundle);
    EXPECT_EQ(json::decode<QuotaSessionCatalog>(json::encode(catalog, true)), catalog);
    EXPECT_EQ(json::decode<QuotaSessionCatalogPatch>(json::encode(QuotaSessionCatalogPatch{1, {session}, {"x"}, at("2026-11-21T12:00:00Z")})).removedDescriptorIDs,
              std::vector<std::string>{"x"});
}

TEST(QuotaSessionDocuments, WritesKeysInOrderAndLeavesOutAbsentOptionals) {
    auto session = descriptor("mac", "s1");
    EXPECT_EQ(json::encode(session),
              R"({"id":"s1","sourceID":"mac","sourceName":"Studio","provider":{"id":"claude","displayName":"Claude"},)"
              R"("title":"t","messageCount":0,"promptCount":0,"tokenUsage":{"inputTokens":0,"outputTokens":0,)"
              R"("cacheReadTokens":0,"cacheWriteTokens":0},"topModels":[],"syncMode":"lite"})");
}

TEST(QuotaSessionDocuments, TopModelsReadFromBareIdentitiesAndFullSummaries) {
    const auto session = json::decode<QuotaSessionDescriptor>(
        R"({"id":"s","sourceID":"m","sourceName":"M","provider":{"id":"codex","displayName":"Codex"},"title":"",)"
        R"("messageCount":2,"promptCount":1,"tokenUsage":{"inputTokens":5,"outputTokens":6},)"
        R"("topModels":[{"id":"gpt-5","displayName":"GPT-5"},)"
        R"({"id":"o3","displayName":"o3","sessionCount":1,"messageCount":2,"tokenUsage":{"inputTokens":1,"outputTokens":2,"cacheReadTokens":3,"cacheWriteTokens":4,"exactCostUSD":0.25}}]})");
    ASSERT_EQ(session.topModels.size(), 2u);
    EXPECT_EQ(session.topModels[0], (QuotaSessionModelUsageSummary{"gpt-5", "GPT-5", 0, 0, {}}));
    EXPECT_EQ(session.topModels[1].tokenUsage, (QuotaSessionTokenUsage{1, 2, 3, 4, 0.25}));
    EXPECT_EQ(session.tokenUsage, (QuotaSessionTokenUsage{5, 6, 0, 0, std::nullopt}));
    EXPECT_EQ(session.syncMode, QuotaSessionSyncMode::lite);
}

TEST(QuotaSessionDocuments, UnknownEnumerationsAndMissingKeysFailTheWholeDocument) {
    const std::string head =
        R"({"id":"s","sourceID":"m","sourceName":"M","provider":{"id":"c","displayName":"C"},"title":"","messageCount":0,"promptCount":0,"tokenUsage":{})";
    EXPECT_EQ(decodeError(head + R"(,"syncMode":"everything"})"), R"(syncMode: unknown value "everything")");
    EXPECT_EQ(decodeError(head + R"(,"topModels":[{"id":"x"}]})"), "topModels[0].displayName: required key is missing");
    EXPECT_EQ(decodeError(head + R"(,"tokenUsage":{"inputTokens":1.5}})"), "tokenUsage.inputTokens: expected an integer, found a fraction");
    EXPECT_EQ(decodeError(R"({"id":"s"})"), "sourceID: required key is missing");
    EXPECT_THROW(json::decode<QuotaSessionMessage>(R"({"id":"m","role":"robot"})"), json::DecodingError);
    EXPECT_EQ(json::decode<QuotaSessionMessage>(R"({"id":"m","role":"meta"})").toolCalls.size(), 0u);
}

TEST(QuotaSessionTokenUsage, TotalsAndSumsCountEveryKind) {
    QuotaSessionTokenUsage a{1, 2, 3, 4, std::nullopt};
    EXPECT_EQ(a.totalTokens(), 10);
    a += QuotaSessionTokenUsage{10, 20, 30, 40, 0.5};
    EXPECT_EQ(a, (QuotaSessionTokenUsage{11, 22, 33, 44, 0.5}));
    a += QuotaSessionTokenUsage{};
    EXPECT_EQ(a.exactCostUSD, 0.5);
}

TEST(QuotaSessionTokenUsageDeathTest, OverflowStopsTheProgram) {
    const QuotaSessionTokenUsage huge{std::numeric_limits<std::int64_t>::max(), 1, 0, 0, std::nullopt};
    EXPECT_DEATH(huge.totalTokens(), "overflow");
    EXPECT_DEATH((QuotaSessionTokenUsage{} += huge) += huge, "overflow");
}

TEST(QuotaSessionCatalog, PatchRemovesByIdThenUpsertsByIdentity) {
    QuotaSessionCatalog catalog{1, {descriptor("a", "1"), descriptor("b", "1"), descriptor("a", "2"), descriptor("a", "3")},
                                {}, at("2026-11-21T12:00:00Z")};
    catalog.aggregates.resize(1);
    const auto aggregates = catalog.aggregates;
    QuotaSessionCatalogPatch patch;
    patch.removedDescriptorIDs = {"1", "missing"};
    patch.upsertedDescriptors = {descriptor("a", "3", "new"), descriptor("c", "9"), descriptor("b", "1", "back"),
                                 descriptor("c", "9", "later")};
    patch.patchedAt = at("2026-11-01T00:00:00Z");  // earlier than the catalogue: still taken
    catalog.apply(patch);

    std::vector<std::string> order;
    for (const auto& d : catalog.descriptors) order.push_back(d.sourceID + "/" + d.id + ":" + d.title);
    // Both sources' "1" went; a/3 was replaced in place; c/9 was appended once (the later upsert
    // wins); b/1 was removed and upserted in one patch, so it is present again.
    EXPECT_EQ(order, (std::vector<std::string>{"a/2:t", "a/3:new", "c/9:later", "b/1:back"}));
    EXPECT_EQ(catalog.updatedAt, at("2026-11-01T00:00:00Z"));
    EXPECT_EQ(catalog.aggregates, aggregates);
    EXPECT_EQ(catalog.version, 1);

    const QuotaSessionCatalog untouched{1, {descriptor("a", "1")}, {}, at("2026-11-21T12:00:00Z")};
    EXPECT_EQ(untouched.applying(QuotaSessionCatalogPatch{1, {}, {}, at("2026-11-22T00:00:00Z")}).descriptors,
              untouched.descriptors);
}

}  // namespace
}  // namespace gaugepoint
