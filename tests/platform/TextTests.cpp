#include <gtest/gtest.h>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

TEST(Text, TrimsUnicodeWhiteSpaceAndLineBreaksOnly) {
    EXPECT_EQ(trimmed("  Pro \n"), "Pro");
    EXPECT_EQ(trimmed("\u3000\u00a0\t Pro Max\u2029\u0085"), "Pro Max");
    EXPECT_EQ(trimmed(" \r\n "), "");
    EXPECT_EQ(trimmed("\u200bx\u200b"), "\u200bx\u200b");  // zero-width space is not white space
    EXPECT_EQ(trimmed("\xe3\x80"), "\xe3\x80");             // a cut-off sequence is kept, not over-read
}

TEST(Text, LookupKeysAreTrimmedLowerCasedAndDashed) {
    EXPECT_EQ(normalizedLookupKey(" Claude_Code "), "claude-code");
    EXPECT_EQ(normalizedLookupKey("Claude Code"), "claude-code");
    EXPECT_EQ(normalizedLookupKey("ÉCOLE_X"), "école-x");
}

TEST(Text, SingleLineTurnsEveryLineBreakerIntoASpace) {
    EXPECT_EQ(singleLine("a\nb\r\tc\x7f\u0085d\u2028e\u2029f"), "a b  c  d e f");
    EXPECT_EQ(singleLine("剩余 58% · é"), "剩余 58% · é");  // everything else as it was
    // A terminal takes a stray 0x9b for CSI, and a right-to-left override reorders what follows.
    EXPECT_EQ(singleLine("a\x9b" "2J\x1b]0;t\a\u202Eb\u2066c"), "a\uFFFD" "2J ]0;t  b c");
}

TEST(Text, DisplayWidthCountsWideCharactersTwice) {
    EXPECT_EQ(displayWidth("5h"), 2u);
    EXPECT_EQ(displayWidth("剩余 58%"), 8u);
    EXPECT_EQ(displayWidth("e\u0301"), 1u);
    EXPECT_EQ(displayWidth("\xff"), 1u);
}

}  // namespace
}  // namespace gaugepoint
