#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaNotifyInbox.hpp"

namespace gaugepoint {
namespace {

using testing::at;

constexpr const char* kMinimal =
    R"({"envelopeID":"e1","threadID":"t1","createdAt":"2026-11-21T09:00:00Z","archivedAt":"2026-11-21T09:00:01Z","origin":"local"})";

TEST(QuotaNotifyArchiveEntry, AbsentOrNullColumnsWithDefaultsTakeThem) {
    for (const std::string extra : {"", R"(,"title":null,"body":null,"category":null,"isArchive":null,"deliveredVia":null)"}) {
        std::string text = kMinimal;
        text.insert(text.size() - 1, extra);
        const auto entry = json::decode<QuotaNotifyArchiveEntry>(text);
        EXPECT_EQ(entry.title, "");
        EXPECT_EQ(entry.body, "");
        EXPECT_EQ(entry.category, "general");
        EXPECT_TRUE(entry.isArchive);
        EXPECT_TRUE(entry.deliveredVia.empty());
        EXPECT_FALSE(entry.coldExt);
    }
}

TEST(QuotaNotifyArchiveEntry, EachRequiredKeyIsNamedWhenMissing) {
    for (const char* key : {"envelopeID", "threadID", "createdAt", "archivedAt", "origin"}) {
        auto object = json::parse(kMinimal).as_object();
        object.erase(key);
        try {
            json::fromValue<QuotaNotifyArchiveEntry>(object);
            ADD_FAILURE() << key;
        } catch (const json::DecodingError& e) {
            EXPECT_EQ(e.what(), std::string(key) + ": required key is missing");
        }
    }
}

TEST(QuotaNotifyArchiveEntry, EveryFieldRoundTripsWithFreeTextKinds) {
    QuotaNotifyArchiveEntry entry{"e1", "t1", at("2026-11-21T09:00:00.125Z"), at("2026-11-21T09:00:01Z"),
                                  "some-future-origin", "Claude at 90%", "5h window", "Only 10% left", "mac-1",
                                  "Studio", "Studio · Claude", "claude", "Claude", "g1", "bolt", "quota",
                                  "a-new-level", false, "tok", "rec-1", {"banner", "watch"},
                                  NotifyInboxColdExt{"https://x.invalid", "copy", "ping", 3, true, "dev-1",
                                                     std::map<std::string, std::string>{{"k", "v"}}, "c"}};
    const std::string text = json::encode(entry);
    EXPECT_NE(text.find(R"("deliveredVia":["banner","watch"])"), std::string::npos) << text;
    EXPECT_EQ(json::decode<QuotaNotifyArchiveEntry>(text), entry);
}

TEST(QuotaNotifyInbox, DocumentRoundTripsAndRejectsUnknownMutationTypes) {
    QuotaNotifyInbox inbox;
    inbox.entries.push_back(json::decode<QuotaNotifyArchiveEntry>(kMinimal));
    inbox.mutations.push_back({"m1", at("2026-11-21T09:00:00Z"), QuotaNotifyInboxMutationType::threadDelete, {}, "t1"});
    inbox.mutations.push_back({"m2", at("2026-11-21T09:00:00Z"), QuotaNotifyInboxMutationType::inboxClear, {}, {}});
    const std::string text = json::encode(inbox);
    EXPECT_NE(text.find(R"("type":"threadDelete")"), std::string::npos);
    EXPECT_EQ(json::decode<QuotaNotifyInbox>(text), inbox);
    EXPECT_NE(std::hash<QuotaNotifyInboxMutation>{}(inbox.mutations[0]), std::hash<QuotaNotifyInboxMutation>{}(inbox.mutations[1]));
    EXPECT_THROW(json::decode<QuotaNotifyInboxMutation>(
                     R"({"id":"m","createdAt":"2026-11-21T09:00:00Z","type":"messageArchive"})"),
                 json::DecodingError);
    EXPECT_EQ(QuotaNotifyInbox::empty().version, 2);
}

}  // namespace
}  // namespace gaugepoint
