#include "CoreKestly/Platform/Values/DCIUTF16Internal.h"

#include "support/Testing.h"

TEST(DCIUTF16Tests, LengthsCountUnitsAndCutBetweenWholeCharacters) {
    // The UTF-16 code units of the whole text, and the bytes of its first character.
    struct Case { std::string text; size_t units, firstBytes; };
    // Malformed bytes count one unit each, and a cut never takes more than one of them: a cut-off
    // sequence, a lead byte without its continuation, overlong forms, an encoded surrogate,
    // a code point beyond U+10FFFF, stray continuations.
    const Case cases[] = {
        {"", 0, 0}, {"ë/kick", 6, 2}, {"ビート", 3, 3}, {"🎵/kick", 7, 4}, {"a🎵b", 4, 1}, {std::string("a\0b", 3), 3, 1},
        {"\xff", 1, 1}, {"a\xc3", 2, 1}, {"\xc3\x28", 2, 1}, {"\xc0\xaf", 2, 1}, {"\xe0\x9f\xbf", 3, 1},
        {"\xf0\x8f\xbf\xbf", 4, 1}, {"\xed\xa0\x80", 3, 1}, {"\xf4\x90\x80\x80", 4, 1}, {"\xf0\x9f\x8e", 3, 1},
        {"\xe3\x83", 2, 1}, {"\x80\x80", 2, 1},
    };
    for (const Case& c : cases)
        EXPECT_EQ(std::pair(DCIUTF16Length(c.text), DCIUTF8CharacterLength(c.text)), std::pair(c.units, c.firstBytes))
            << testing::PrintToString(c.text);
}
