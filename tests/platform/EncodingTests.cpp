#include <gtest/gtest.h>

#include <set>

#include "gaugepoint/platform/Base64.hpp"
#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/platform/Uuid.hpp"

namespace gaugepoint {
namespace {

using namespace std::string_view_literals;

std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(Sha256, MatchesTheStandardVectors) {
    EXPECT_EQ(sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256Hex(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    EXPECT_EQ(lowercaseHex(bytes("\x00\x0f\xa0\xff"sv)), "000fa0ff");
}

TEST(Base64, RoundTripsWithPaddingAsTheStandardWritesIt) {
    const std::vector<std::pair<std::string_view, std::string_view>> vectors{
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"}, {"\xff\xfe\x00?"sv, "//4APw=="}};
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(bytes(plain)), encoded);
        EXPECT_EQ(base64Decode(encoded), bytes(plain)) << encoded;
    }
}

TEST(Base64, RejectsEverythingButTheOneCanonicalText) {
    for (std::string_view text : {"Zg", "Zg=", "Zh==", "Zm9=", "Z===", "=Zg=", "Zg==Zg==", "Zm 9v", "Zm9v\n", "Zm-v",
                                  "Zm_v", "Zm9v===="}) {
        EXPECT_FALSE(base64Decode(text)) << text;
    }
}

TEST(Uuid, RandomIdentifiersAreVersionFourAndRoundTripThroughText) {
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const Uuid id = Uuid::random();
        const std::string text = id.lowercaseText();
        ASSERT_EQ(text.size(), 36u);
        EXPECT_EQ(text[14], '4');
        EXPECT_EQ(text.find_first_not_of("0123456789abcdef-"), std::string::npos);
        EXPECT_EQ(Uuid::parse(text), id);
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 100u);
    EXPECT_EQ(Uuid::parse("1B4E28BA-2FA1-11D2-883F-0016D3CCA427")->lowercaseText(),
              "1b4e28ba-2fa1-11d2-883f-0016d3cca427");
    for (std::string_view bad : {"", "1b4e28ba2fa111d2883f0016d3cca427", "1b4e28ba-2fa1-11d2-883f-0016d3cca42",
                                 "1b4e28ba-2fa1-11d2-883f-0016d3cca4270", "zb4e28ba-2fa1-11d2-883f-0016d3cca427"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
}

}  // namespace
}  // namespace gaugepoint
