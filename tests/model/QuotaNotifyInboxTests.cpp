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

TEST(QuotaNotifyInbox, DocumentRoundTripsAndRejectsUnknownMutationTypes) {
    QuotaNotifyInbox inbox;
    inbox.entries.push_back(json::decode<QuotaNotifyArchiveEntry>(kMinimal));
    inbox.mutations.push_back({"m1", at("2026-11-21T09:00:00Z"), QuotaNotifyInboxMutationType::threadDelete, {}, "t1"});
    const std::string text = json::encode(inbox);
    EXPECT_EQ(json::decode<QuotaNotifyInbox>(text), inbox);
    std::string unknown = text;
    unknown.replace(unknown.find("threadDelete"), 12, "threadMute");
    EXPECT_THROW(json::decode<QuotaNotifyInbox>(unknown), json::DecodingError);
}

}  // namespace
}  // namespace gaugepoint
