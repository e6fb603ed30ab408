#include "CoreKestly/Platform/DCIUTF16Internal.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

TEST(DCIUTF16Tests, LengthCountsUTF16CodeUnits) {
    const std::vector<std::pair<std::string, size_t>> rows = {
        {"", 0}, {"Beat Project", 12},
        {"Bëat Prøject", 12},           // two-byte characters: one unit each
        {"ビート", 3},                  // three-byte characters: one unit each
        {"🎵", 2},                      // beyond the Basic Multilingual Plane: a surrogate pair
        {"a🎵b", 4}, {std::string("a\0b", 3), 3},
    };
    for (const auto& [text, units] : rows) EXPECT_EQ(DCIUTF16Length(text), units) << text;
}

TEST(DCIUTF16Tests, MalformedBytesCountOneUnitEach) {
    const std::vector<std::pair<std::string, size_t>> rows = {
        {"\xff", 1},
        {"a\xc3", 2},                 // cut-off two-byte sequence
        {"\xc3\x28", 2},              // lead byte without its continuation
        {"\xc0\xaf", 2},              // overlong "/"
        {"\xed\xa0\x80", 3},          // an encoded surrogate
        {"\xf4\x90\x80\x80", 4},      // beyond U+10FFFF
        {"\xf0\x9f\x8e", 3},          // cut-off four-byte sequence
        {"\x80\x80", 2},              // stray continuations
    };
    for (const auto& [text, units] : rows) EXPECT_EQ(DCIUTF16Length(text), units) << testing::PrintToString(text);
}

TEST(DCIUTF16Tests, CharacterLengthIsOneWholeCharacter) {
    EXPECT_EQ(DCIUTF8CharacterLength(""), 0u);
    EXPECT_EQ(DCIUTF8CharacterLength("/kick"), 1u);
    EXPECT_EQ(DCIUTF8CharacterLength("ë/kick"), 2u);
    EXPECT_EQ(DCIUTF8CharacterLength("ビ"), 3u);
    EXPECT_EQ(DCIUTF8CharacterLength("🎵/kick"), 4u);
    EXPECT_EQ(DCIUTF8CharacterLength("\xe3\x83"), 1u);
    EXPECT_EQ(DCIUTF8CharacterLength("\x80\x80"), 1u);
}

}  // namespace
