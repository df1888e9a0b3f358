#include <gtest/gtest.h>

#include <cmath>

#include <cstdlib>

#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint::jsontest {

enum class Colour { red, green };
BOOST_DESCRIBE_ENUM(Colour, red, green)

struct Leaf {
    Colour colour = Colour::red;
    std::optional<std::string> note;
    bool operator==(const Leaf&) const = default;
};
BOOST_DESCRIBE_STRUCT(Leaf, (), (colour, note))

struct Document {
    std::int64_t count = 0;
    double ratio = 0;
    std::optional<Date> when;
    std::vector<Leaf> leaves;
    std::map<std::string, int> tally;
    bool operator==(const Document&) const = default;
};
BOOST_DESCRIBE_STRUCT(Document, (), (count, ratio, when, leaves, tally))

namespace {

std::string decodeError(std::string_view text) {
    try {
        json::decode<Document>(text);
    } catch (const json::DecodingError& e) {
        return e.what();
    }
    return "(decoded)";
}

TEST(JsonCodec, WritesMemberNamesLeavesOutEmptyOptionalsAndShortestNumbers) {
    Document doc{3, 42.5, std::nullopt, {{Colour::green, std::nullopt}, {Colour::red, "a\"b\n\x01"}}, {{"x", 1}}};
    EXPECT_EQ(json::encode(doc),
              R"({"count":3,"ratio":42.5,"leaves":[{"colour":"green"},{"colour":"red","note":"a\"b\n\u0001"}],"tally":{"x":1}})");
    doc.ratio = 0.1;
    doc.when = dateFromSeconds(1795267140);
    EXPECT_NE(json::encode(doc).find(R"("ratio":0.1,"when":"2026-11-21T13:19:00Z")"), std::string::npos);
    doc.ratio = 42;
    EXPECT_NE(json::encode(doc).find(R"("ratio":42,)"), std::string::npos);
}

TEST(JsonCodec, RoundTripsEveryShape) {
    const Document doc{-7, 1e-7, dateFromSeconds(1.5), {{Colour::green, "ü ✓"}}, {{"", 0}, {"k", -1}}};
    EXPECT_EQ(json::decode<Document>(json::encode(doc)), doc);
    EXPECT_EQ(json::decode<Document>(json::encode(doc, true)), doc);
}

TEST(JsonCodec, AbsentOrNullOptionalsReadAsEmptyAndUnknownKeysAreIgnored) {
    const auto doc = json::decode<Document>(
        R"({"count":1,"ratio":2,"when":null,"leaves":[{"colour":"red","note":null,"extra":[1]}],"tally":{},"more":true})");
    EXPECT_FALSE(doc.when);
    ASSERT_EQ(doc.leaves.size(), 1u);
    EXPECT_FALSE(doc.leaves[0].note);
}

TEST(JsonCodec, FailuresNameTheKeyPath) {
    const std::string base = R"({"count":1,"ratio":2,"tally":{},"leaves":)";
    EXPECT_EQ(decodeError(base + R"([{"colour":"red"},{"colour":"blue"}]})"),
              R"(leaves[1].colour: unknown value "blue")");
    EXPECT_EQ(decodeError(base + R"([{"note":"x"}]})"), "leaves[0].colour: required key is missing");
    EXPECT_EQ(decodeError(R"({"count":1,"ratio":2,"tally":{},"leaves":[]})" "  "), "(decoded)");
    EXPECT_EQ(decodeError(R"({"ratio":2,"tally":{},"leaves":[]})"), "count: required key is missing");
    EXPECT_EQ(decodeError(R"({"count":"1","ratio":2,"tally":{},"leaves":[]})"), "count: expected an integer, found a string");
    EXPECT_EQ(decodeError(R"({"count":1.5,"ratio":2,"tally":{},"leaves":[]})"), "count: expected an integer, found a fraction");
    EXPECT_EQ(decodeError(R"({"count":null,"ratio":2,"tally":{},"leaves":[]})"), "count: expected an integer, found null");
    EXPECT_EQ(decodeError(R"({"count":1,"ratio":2,"tally":{"a":"b"},"leaves":[]})"), "tally.a: expected an integer, found a string");
    EXPECT_EQ(decodeError(R"({"count":1,"ratio":2,"when":"yesterday","tally":{},"leaves":[]})"),
              R"(when: expected an ISO 8601 date, found "yesterday")");
    EXPECT_EQ(decodeError("[]"), "the document: expected an object, found an array");
}

TEST(JsonCodec, NumbersMustFitTheirType) {
    EXPECT_EQ(json::decode<Document>(R"({"count":42.0,"ratio":2,"tally":{},"leaves":[]})").count, 42);
    EXPECT_EQ(decodeError(R"({"count":1e300,"ratio":2,"tally":{},"leaves":[]})"), "count: integer out of range");
    EXPECT_EQ(decodeError(R"({"count":18446744073709551615,"ratio":2,"tally":{},"leaves":[]})"), "count: integer out of range");
    EXPECT_EQ(decodeError(R"({"count":1,"ratio":-1e999,"tally":{},"leaves":[]})"), "ratio: number out of range");
}

// Numbers are read correctly rounded (a fast reading can be a unit in the last place off), so a
// document written back from what was read reads back the same.
TEST(JsonCodec, NumbersAreReadToTheNearestDoubleAndWrittenBackTheSame) {
    for (const std::string text : {"-2111111111111111111111111111111111111111111111111111111111111111111111111111111111111111111111111110",
                                   "-2.111111111111111e+99", "0.1", "2.2250738585072011e-308", "9007199254740993.0"}) {
        const auto read = json::decode<Document>(R"({"count":1,"ratio":)" + text + R"(,"tally":{},"leaves":[]})");
        EXPECT_EQ(read.ratio, std::strtod(text.c_str(), nullptr)) << text;
        EXPECT_EQ(json::decode<Document>(json::encode(read)).ratio, read.ratio) << text;
    }
    // Negative zero is written "-0", which must read back as a double of that sign, or a document
    // written back would change ("0"); an integer field still takes it as 0.
    const auto zero = json::decode<Document>(R"({"count":-0,"ratio":-0,"tally":{},"leaves":[]})");
    EXPECT_TRUE(std::signbit(zero.ratio));
    EXPECT_EQ(zero.count, 0);
    EXPECT_EQ(json::encode(json::decode<Document>(json::encode(zero))), json::encode(zero));
}

TEST(JsonCodec, SyntaxErrorsGiveLineAndColumn) {
    const std::string message = decodeError("{\n  \"count\": 1,\n  \"ratio\": ]\n}");
    EXPECT_EQ(message.rfind("invalid JSON at line 3, column 12: ", 0), 0u) << message;
    EXPECT_EQ(decodeError("{} {}").rfind("invalid JSON at line 1, column 4", 0), 0u);
    EXPECT_EQ(decodeError("").rfind("invalid JSON at line 1, column 1", 0), 0u);
    EXPECT_EQ(decodeError(std::string(100000, '[')).rfind("invalid JSON", 0), 0u);  // too deep, not a crash
}

TEST(JsonCodec, NonFiniteNumbersCannotBeWritten) {
    Document doc;
    doc.ratio = std::numeric_limits<double>::infinity();
    EXPECT_THROW(json::encode(doc), json::EncodingError);
}

TEST(JsonWriter, IndentsNestedContainersByTwoSpaces) {
    const Document doc{1, 2, std::nullopt, {{Colour::red, std::nullopt}}, {}};
    EXPECT_EQ(json::encode(doc, true),
              "{\n  \"count\": 1,\n  \"ratio\": 2,\n  \"leaves\": [\n    {\n      \"colour\": \"red\"\n    }\n  ],\n"
              "  \"tally\": {}\n}");
}

}  // namespace
}  // namespace gaugepoint::jsontest
