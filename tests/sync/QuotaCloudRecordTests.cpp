#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/sync/QuotaCloudRecord.hpp"

namespace gaugepoint {
namespace {

QuotaCloudRecord sample() {
    QuotaCloudRecord record{"GpSnapshotHot", {"snapshot-hot:ab", {"GaugepointSameAccountV2", "__defaultOwner__"}}, {}};
    record.set("schemaVersion", std::int64_t{2});
    record.set("totalCostUSD", 0.25);
    record.set("sourceID", std::string("mac-studio"));
    record.set("updatedAt", testing::at("2026-11-21T09:00:00.5Z"));
    record.set("payloadBlob", QuotaCloudRecordBytes{'{', '}', 0xff});
    return record;
}

constexpr std::string_view kSampleJson =
    R"({"recordType":"GpSnapshotHot","recordName":"snapshot-hot:ab","zoneName":"GaugepointSameAccountV2",)"
    R"("ownerName":"__defaultOwner__","fields":[{"key":"schemaVersion","type":"int64","value":2},)"
    R"({"key":"totalCostUSD","type":"double","value":0.25},{"key":"sourceID","type":"string","value":"mac-studio"},)"
    R"({"key":"updatedAt","type":"date","value":"2026-11-21T09:00:00.5Z"},)"
    R"({"key":"payloadBlob","type":"bytes","value":"e33/"}]})";

TEST(CloudRecord, JsonFormKeepsWriteOrderTypesBase64AndDates) {
    EXPECT_EQ(json::encode(sample()), kSampleJson);
    EXPECT_EQ(json::decode<QuotaCloudRecord>(kSampleJson), sample());

    // set() replaces a value where it stands; remove() keeps the others' order.
    auto record = sample();
    record.set("schemaVersion", std::int64_t{3});
    record.remove("totalCostUSD");
    ASSERT_EQ(record.fields.size(), 4u);
    EXPECT_EQ(record.fields[0].key, "schemaVersion");
    EXPECT_EQ(*record.get<std::int64_t>("schemaVersion"), 3);
    EXPECT_EQ(record.fields[1].key, "sourceID");
    EXPECT_EQ(record.get<double>("sourceID"), nullptr);  // another type reads as absent
}

TEST(CloudRecord, ReadingRejectsAnythingBeyondTheFormWithThePlace) {
    const auto field = [](std::string_view body) {
        return R"({"recordType":"T","recordName":"n","zoneName":"z","ownerName":"o","fields":[)" + std::string(body) + "]}";
    };
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({"recordType":"T","recordName":"n","zoneName":"z","fields":[]})", "ownerName: required key is missing"},
        {R"({"recordType":"T","recordName":"n","zoneName":"z","ownerName":"o"})", "fields: required key is missing"},
        {field(R"({"key":"a","type":"float","value":1})"),
         R"(fields[0].type: unknown field type "float" (expected int64, double, string, date or bytes))"},
        {field(R"({"key":"a","type":"int64","value":1.5})"), "fields[0].value: expected an integer, found a fraction"},
        {field(R"({"key":"a","type":"int64","value":"1"})"), "fields[0].value: expected an integer, found a string"},
        {field(R"({"key":"a","type":"bytes","value":"e33"})"), "fields[0].value: expected standard base64"},
        {field(R"({"key":"a","type":"date","value":"yesterday"})"),
         R"(fields[0].value: expected an ISO 8601 date, found "yesterday")"},
        {field(R"({"key":"a","type":"string"})"), "fields[0].value: required key is missing"},
        {field(R"({"key":"a","type":"string","value":"x"},{"key":"a","type":"int64","value":1})"),
         R"(fields[1].key: duplicate field key "a")"},
        {field(R"([])"), "fields[0]: expected an object, found an array"},
    };
    for (const auto& [text, message] : cases) {
        try {
            json::decode<QuotaCloudRecord>(text);
            ADD_FAILURE() << "accepted " << text;
        } catch (const json::DecodingError& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
}

}  // namespace
}  // namespace gaugepoint
