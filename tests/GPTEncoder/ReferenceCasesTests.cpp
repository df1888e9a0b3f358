// The reference cases in tests/data/gpt2/cases.jsonl: ids (cold and warm cache), the round trip,
// and the pre-token split where a case records it.

#include <gtest/gtest.h>

#include <boost/json.hpp>

#include <fstream>
#include <string>
#include <vector>

#include "GPTEncoder/GPTEncoder.hpp"
#include "GPTEncoder/PreTokenizer.hpp"

namespace gaugepoint {
namespace {

struct ReferenceCase {
    std::string name, text;
    std::vector<int> ids;
    std::vector<std::string> pretokens;
    friend void PrintTo(const ReferenceCase& c, std::ostream* out) { *out << c.name; }
};

std::vector<ReferenceCase> loadCases() {
    std::ifstream in(GAUGEPOINT_TEST_DATA_DIR "/gpt2/cases.jsonl");
    std::vector<ReferenceCase> cases;
    for (std::string line; std::getline(in, line);) {
        const auto json = boost::json::parse(line).as_object();
        ReferenceCase c{std::string(json.at("name").as_string()), std::string(json.at("text").as_string()), {}, {}};
        for (const auto& id : json.at("ids").as_array()) c.ids.push_back(static_cast<int>(id.as_int64()));
        if (const auto* pieces = json.if_contains("pretokens"))
            for (const auto& piece : pieces->as_array()) c.pretokens.emplace_back(piece.as_string());
        cases.push_back(std::move(c));
    }
    return cases;
}

class ReferenceCases : public ::testing::TestWithParam<ReferenceCase> {};

TEST_P(ReferenceCases, MatchReferenceIdsAndRoundTrip) {
    const ReferenceCase& c = GetParam();
    GPTEncoder encoder;
    EXPECT_EQ(encoder.encode(c.text), c.ids) << "cold cache";
    EXPECT_EQ(encoder.encode(c.text), c.ids) << "warm cache";
    EXPECT_EQ(encoder.decode(c.ids), c.text);
    if (c.pretokens.empty()) return;
    std::vector<std::string> pieces;
    PreTokenizer scanner(c.text, Vocabulary::shared());
    for (auto piece = scanner.next(); !piece.empty(); piece = scanner.next()) pieces.emplace_back(piece);
    EXPECT_EQ(pieces, c.pretokens);
}

TEST(ReferenceCaseFile, HasEveryCase) { EXPECT_EQ(loadCases().size(), 84u); }

INSTANTIATE_TEST_SUITE_P(Gpt2, ReferenceCases, ::testing::ValuesIn(loadCases()), [](const auto& info) {
    std::string name = info.param.name;
    for (char& ch : name)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return name;
});

}  // namespace
}  // namespace gaugepoint
