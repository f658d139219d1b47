// UTF-8 well-formedness at the boundaries of every sequence length, and
// cutting text without splitting a character.
#include <gtest/gtest.h>

#include <string>

#include "base/utf8.h"

TEST(Utf8Check, EveryBoundaryOfEverySequenceLength) {
    struct Case {
        std::string text;
        bool valid;
    };
    const Case cases[] = {
        {"", true},
        {"plain ASCII \x7f", true},
        {"\xc2\x80", true},           // U+0080
        {"\xdf\xbf", true},           // U+07FF
        {"\xe0\xa0\x80", true},       // U+0800
        {"\xef\xbf\xbf", true},       // U+FFFF
        {"\xf0\x90\x80\x80", true},   // U+10000
        {"\xf4\x8f\xbf\xbf", true},   // U+10FFFF
        {"\xed\x9f\xbf", true},       // U+D7FF, before the surrogates
        {"\xee\x80\x80", true},       // U+E000, after them
        {"\xc0\x80", false},          // overlong NUL
        {"\xc1\xbf", false},          // overlong
        {"\xe0\x9f\xbf", false},      // overlong three-byte
        {"\xf0\x8f\xbf\xbf", false},  // overlong four-byte
        {"\xed\xa0\x80", false},      // U+D800
        {"\xed\xbf\xbf", false},      // U+DFFF
        {"\xf4\x90\x80\x80", false},  // U+110000
        {"\xf5\x80\x80\x80", false},
        {"\xff", false},
        {"\x80", false},
        {"a\xc2", false},  // cut short
        {"\xe2\x82", false},
        {"\xf0\x9f\x93", false},
        {"\xe2\x28\xa1", false},  // bad second byte
        {"\xe2\x82\x28", false},  // bad third byte
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.valid, utf8Valid(c.text)) << testing::PrintToString(c.text);
}

TEST(Utf8Check, CutsEndWhereACharacterEnds) {
    const std::string text =
        "ab\xc3\xa9"
        "c\xf0\x9f\x93\xb6";  // a b é c 📶
    EXPECT_EQ(2u, utf8CutLength(text, 3));
    EXPECT_EQ(4u, utf8CutLength(text, 4));
    EXPECT_EQ(5u, utf8CutLength(text, 5));
    EXPECT_EQ(5u, utf8CutLength(text, 8));
    EXPECT_EQ(9u, utf8CutLength(text, 9));
    EXPECT_EQ(9u, utf8CutLength(text, 100));
    for (size_t max = 0; max <= text.size(); ++max)
        EXPECT_TRUE(utf8Valid(text.substr(0, utf8CutLength(text, max)))) << max;
}
