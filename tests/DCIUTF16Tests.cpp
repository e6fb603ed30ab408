#include "CoreKestly/Platform/DCIUTF16Internal.h"

#include <gtest/gtest.h>

#include <string>

TEST(DCIUTF16Tests, LengthsCountUnitsAndCutBetweenWholeCharacters) {
    // The UTF-16 code units of the whole text, and the bytes of its first character.
    struct Case { std::string text; size_t units, firstBytes; };
    const Case cases[] = {
        {"", 0, 0},
        {"ë/kick", 6, 2},                // two-byte character: one unit
        {"ビート", 3, 3},                 // three-byte characters: one unit each
        {"🎵/kick", 7, 4},               // beyond the Basic Multilingual Plane: a surrogate pair
        {"a🎵b", 4, 1},
        {std::string("a\0b", 3), 3, 1},
        // Malformed bytes count one unit each, and a cut never takes more than one of them.
        {"\xff", 1, 1},
        {"a\xc3", 2, 1},                 // cut-off two-byte sequence
        {"\xc3\x28", 2, 1},              // lead byte without its continuation
        {"\xc0\xaf", 2, 1},              // overlong "/"
        {"\xe0\x9f\xbf", 3, 1},          // overlong below U+0800
        {"\xf0\x8f\xbf\xbf", 4, 1},      // overlong below U+10000
        {"\xed\xa0\x80", 3, 1},          // an encoded surrogate
        {"\xf4\x90\x80\x80", 4, 1},      // beyond U+10FFFF
        {"\xf0\x9f\x8e", 3, 1},          // cut-off four-byte sequence
        {"\xe3\x83", 2, 1},              // cut-off three-byte sequence
        {"\x80\x80", 2, 1},              // stray continuations
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text));
        EXPECT_EQ(DCIUTF16Length(c.text), c.units);
        EXPECT_EQ(DCIUTF8CharacterLength(c.text), c.firstBytes);
    }
}
