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
    // Lengths either side of where the padding needs a second block.
    const std::pair<std::size_t, std::string_view> padded[] = {
        {55, "e7313d333c272e639f790978283f9eb392e843d0f29b7016828bb1daa4aac70b"},
        {56, "4324d65f3c103567f5589c710bc08f8523f929a9272e3af36fc968e52abc6c27"},
        {63, "81c80242132f230c3bd41b3e63bbcff16107339549214a99614ff26664625055"},
        {64, "39e3d7b6b5d075d37d053ad89b24b41bef4f3c29760c84447cab3f3be1882241"},
        {65, "aacca6ff74fdbb296d165a45cecfa04e5127bc008770fbbdd48006f2d2fae95e"},
        {119, "9ce7368e4daf32341631b492e80359dc9f594b48453cd0dd5bf0b19279cc177e"},
        {120, "7836b787757e95e58b3ca5aec90b1b004e8deba1e50e9675af9cabf1a13a04b5"}};
    for (const auto& [length, digest] : padded) {
        std::vector<std::uint8_t> input(length);
        for (std::size_t i = 0; i < length; ++i) input[i] = std::uint8_t((i * 7 + 3) % 256);
        EXPECT_EQ(sha256Hex(input), digest) << length;
    }
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
