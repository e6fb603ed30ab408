#include "CoreKestly/Platform/DCIFileNamePatternInternal.h"

#include <clocale>
#include <cwctype>
#include <locale.h>

namespace {

// The base letter of each precomposed Latin letter whose canonical decomposition is that
// letter and combining marks, from U+00C0 to U+017F; '.' for letters that do not decompose
// (Æ, Ø, ß, Đ, Ł, Œ...), which stand for themselves.
constexpr std::string_view kLatinBases =
    "aaaaaa.ceeeeiiii.nooooo..uuuuy.."  // U+00C0
    "aaaaaa.ceeeeiiii.nooooo..uuuuy.y"  // U+00E0
    "aaaaaaccccccccdd..eeeeeeeeeegggg"  // U+0100
    "gggghh..iiiiiiiii...jjkk.llllll."  // U+0120
    "...nnnnnn...oooooo..rrrrrrssssss"  // U+0140
    "sstttt..uuuuuuuuuuuuwwyyyzzzzzz.";  // U+0160
constexpr char32_t kFirstLatin = 0xC0;
static_assert(kLatinBases.size() == 0x180 - kFirstLatin);

// Bytes that are not UTF-8 become these code points, which no valid text decodes to.
constexpr char32_t kRawByteBase = 0x110000;

bool isCombiningMark(char32_t c) { return c >= 0x300 && c <= 0x36F; }

// The next character of `text` at `at`, advancing `at`.
char32_t decode(std::string_view text, size_t& at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const size_t length = byte < 0x80 ? 1 : (byte >> 5) == 0x6 ? 2 : (byte >> 4) == 0xE ? 3 : (byte >> 3) == 0x1E ? 4 : 0;
    char32_t c = length == 1 ? byte : byte & (0x7Fu >> length);
    bool valid = length != 0 && at + length <= text.size();
    for (size_t i = 1; valid && i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        valid = (next & 0xC0) == 0x80;
        c = (c << 6) | (next & 0x3F);
    }
    constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (!valid || c < kSmallest[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        ++at;
        return kRawByteBase + byte;
    }
    at += length;
    return c;
}

void encode(char32_t c, std::string& out) {
    if (c >= kRawByteBase) {
        out += static_cast<char>(c - kRawByteBase);
    } else if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Lower case beyond ASCII from a UTF-8 locale of our own, whatever locale the host set.
char32_t lowercased(char32_t c) {
    if (c < 0x80) return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    if (!utf8 || c >= kRawByteBase) return c;
    return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), utf8));
}

char32_t folded(char32_t c) {
    if (c >= kFirstLatin && c < kFirstLatin + kLatinBases.size() && kLatinBases[c - kFirstLatin] != '.')
        return static_cast<char32_t>(kLatinBases[c - kFirstLatin]);
    return lowercased(c);
}

// Lower case, accents dropped, whether precomposed or written as combining marks.
std::u32string fold(std::string_view text) {
    std::u32string result;
    result.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const char32_t c = decode(text, at);
        if (!isCombiningMark(c)) result += folded(c);
    }
    return result;
}

// Whole-string wildcard match; on a mismatch after a `*`, the star takes one more character
// and matching resumes: linear in practice, at worst the product of the two lengths.
bool wildcardMatch(std::u32string_view pattern, std::u32string_view text) {
    size_t p = 0, t = 0, starP = std::u32string_view::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == U'*') {  // a wildcard even where the text has a "*"
            starP = p++, starT = t;
        } else if (p < pattern.size() && (pattern[p] == U'?' || pattern[p] == text[t])) {
            ++p, ++t;
        } else if (starP != std::u32string_view::npos) {
            p = starP + 1, t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == U'*') ++p;
    return p == pattern.size();
}

}  // namespace

DCIFileNamePattern::DCIFileNamePattern(std::string_view pattern) : folded_(fold(pattern)) {}

bool DCIFileNamePattern::matches(std::string_view fileName) const { return wildcardMatch(folded_, fold(fileName)); }

std::string DCIFileNamePattern::locateGlob() const {
    std::string glob;
    for (char32_t c : folded_) {
        if (c == U'[' || c == U']' || c == U'\\') glob += '\\';
        const bool hasAccentedForms = c < 0x80 && c != U'.' && kLatinBases.find(static_cast<char>(c)) != std::string_view::npos;
        if (!hasAccentedForms) {
            encode(c, glob);
            continue;
        }
        glob += '[';
        glob += static_cast<char>(c);
        // Lower-case forms only: the program folds case itself, and every upper-case form in a
        // set multiplies the case variants it tries, which costs it seconds.
        for (size_t i = 0; i < kLatinBases.size(); ++i) {
            const char32_t accented = kFirstLatin + static_cast<char32_t>(i);
            if (kLatinBases[i] == static_cast<char>(c) && lowercased(accented) == accented) encode(accented, glob);
        }
        glob += ']';
    }
    return glob;
}
