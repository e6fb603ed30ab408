#include "CoreKestly/Platform/Search/DCIFileNamePatternInternal.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>

namespace {

// A folded text is a run of code points; beyond their range it also holds the bytes of text
// that is not UTF-8 and the pattern's two wildcards, which no text folds to.
constexpr char32_t kRawByteBase = 0x110000;
constexpr char32_t kAnyCharacter = 0x110100;
constexpr char32_t kAnyRun = 0x110101;

// NFKC_Casefold, marks stripped.
constexpr auto kFolding = static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPAT | UTF8PROC_COMPOSE |
                                                         UTF8PROC_CASEFOLD | UTF8PROC_IGNORE | UTF8PROC_STRIPMARK);

const utf8proc_uint8_t* bytes(std::string_view text) {
    return reinterpret_cast<const utf8proc_uint8_t*>(text.data());
}

bool isUTF8Text(std::string_view text) {
    utf8proc_int32_t c;
    for (size_t at = 0; at < text.size();) {
        const auto length = utf8proc_iterate(bytes(text) + at, static_cast<utf8proc_ssize_t>(text.size() - at), &c);
        if (length <= 0) return false;
        at += static_cast<size_t>(length);
    }
    return true;
}

void appendUTF8(char32_t c, std::string& out) {
    utf8proc_uint8_t buffer[4];
    const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(c), buffer);
    out.append(reinterpret_cast<const char*>(buffer), static_cast<size_t>(length));
}

// Appends the folded form of `text`, which is valid UTF-8 or compared byte for byte.
void appendFolded(std::string_view text, bool isValidUTF8, std::u32string& out) {
    const bool isASCII = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!isValidUTF8 || isASCII) {  // ASCII folds to its lower case, so it needs no library call
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            out += byte >= 0x80 ? kRawByteBase + byte : byte >= 'A' && byte <= 'Z' && isValidUTF8 ? byte + 0x20u : byte;
        }
        return;
    }
    // Compatibility forms may decompose into many characters (U+FDFA into 18).
    std::vector<utf8proc_int32_t> buffer(text.size() * 4);
    const auto size = static_cast<utf8proc_ssize_t>(text.size());
    auto count = utf8proc_decompose(bytes(text), size, buffer.data(), static_cast<utf8proc_ssize_t>(buffer.size()), kFolding);
    if (count > static_cast<utf8proc_ssize_t>(buffer.size())) {
        buffer.resize(static_cast<size_t>(count));
        count = utf8proc_decompose(bytes(text), size, buffer.data(), count, kFolding);
    }
    count = count < 0 ? count : utf8proc_normalize_utf32(buffer.data(), count, kFolding);
    for (utf8proc_ssize_t i = 0; i < count; ++i) out += static_cast<char32_t>(buffer[static_cast<size_t>(i)]);
}

std::u32string folded(std::string_view text) {
    std::u32string result;
    appendFolded(text, isUTF8Text(text), result);
    return result;
}

// Whole-string wildcard match; on a mismatch after a `*`, the star takes one more character
// and matching resumes: linear in practice, at worst the product of the two lengths.
bool wildcardMatch(std::u32string_view pattern, std::u32string_view text) {
    size_t p = 0, t = 0, starP = std::u32string_view::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == kAnyRun) {
            starP = p++, starT = t;
        } else if (p < pattern.size() && (pattern[p] == kAnyCharacter || pattern[p] == text[t])) {
            ++p, ++t;
        } else if (starP != std::u32string_view::npos) {
            p = starP + 1, t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == kAnyRun) ++p;
    return p == pattern.size();
}

// What the locate glob must allow in place of a folded character: the characters that fold to
// it alone, and those whose folding begins with it (ǆ for "dz", ß for "ss").
struct Forms {
    std::u32string single;
    std::vector<std::pair<char32_t, std::u32string>> longer;
};

// Made once, from the blocks that hold letters with accents or compatibility forms. Every case
// is listed: the program is not asked to ignore case, which multiplies its work by the case
// variants of every member of every set (seconds for a dozen sets).
const std::map<char32_t, Forms>& formsByFoldedCharacter() {
    static const auto forms = [] {
        std::map<char32_t, Forms> map;
        const std::pair<char32_t, char32_t> blocks[] = {{0x20, 0x52F},    {0x1E00, 0x1FFF}, {0x2070, 0x24FF},
                                                        {0x3040, 0x30FF}, {0xFB00, 0xFB4F}, {0xFF00, 0xFFEF}};
        for (const auto& [first, last] : blocks) {
            for (char32_t c = first; c <= last; ++c) {
                if (!utf8proc_codepoint_valid(static_cast<utf8proc_int32_t>(c))) continue;
                std::string text;
                appendUTF8(c, text);
                const std::u32string fold = folded(text);
                if (fold.empty() || fold == std::u32string(1, c)) continue;
                if (fold.size() == 1) map[fold[0]].single += c;
                else map[fold[0]].longer.emplace_back(c, fold);
            }
        }
        return map;
    }();
    return forms;
}

// A character of an extended regular expression that stands for itself.
void appendLiteral(char32_t c, std::string& regex) {
    if (c < 0x80 && std::string_view("\\.[]()*+?{}|^$").find(static_cast<char>(c)) != std::string_view::npos)
        regex += '\\';
    appendUTF8(c, regex);
}

// The text with the glob's set and escape characters escaped; its wildcards stay wildcards.
std::string escapedGlob(std::string_view text) {
    std::string glob;
    for (const char c : text) {
        if (c == '[' || c == ']' || c == '\\') glob += '\\';
        glob += c;
    }
    return glob;
}

// A normal form of valid UTF-8 by utf8proc, whose result is freed here.
std::string normalized(std::string_view text, utf8proc_uint8_t* (*form)(const utf8proc_uint8_t*)) {
    const std::string terminated(text);
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> result(form(bytes(terminated)), &std::free);
    return result ? reinterpret_cast<const char*>(result.get()) : terminated;
}

// The first character of the canonical decomposition of `c`, which a decomposed name holds
// in its place (ᄒ for 한), or `c` itself.
char32_t firstDecomposed(char32_t c) {
    std::string text;
    appendUTF8(c, text);
    const std::string decomposed = normalized(text, utf8proc_NFD);
    utf8proc_int32_t first;
    const auto length = utf8proc_iterate(bytes(decomposed), static_cast<utf8proc_ssize_t>(decomposed.size()), &first);
    return length > 0 ? static_cast<char32_t>(first) : c;
}

}  // namespace

DCIFileNamePattern::DCIFileNamePattern(std::string_view pattern) : text_(pattern) {
    // The wildcards split the pattern before folding, so that no character folds into one.
    const bool isValidUTF8 = isUTF8Text(pattern);
    size_t start = 0;
    for (size_t at = 0; at <= pattern.size(); ++at) {
        if (at < pattern.size() && pattern[at] != '*' && pattern[at] != '?') continue;
        appendFolded(pattern.substr(start, at - start), isValidUTF8, folded_);
        if (at < pattern.size()) folded_ += pattern[at] == '*' ? kAnyRun : kAnyCharacter;
        start = at + 1;
    }
}

bool DCIFileNamePattern::matches(std::string_view fileName) const { return wildcardMatch(folded_, folded(fileName)); }

bool DCIFileNamePattern::isUTF8() const { return isUTF8Text(text_); }

std::vector<std::string> DCIFileNamePattern::spellingGlobs() const {
    if (!isUTF8()) return {escapedGlob(text_)};
    const std::string composed = escapedGlob(normalized(text_, utf8proc_NFC));
    const std::string decomposed = escapedGlob(normalized(text_, utf8proc_NFD));
    return composed == decomposed ? std::vector{composed} : std::vector{composed, decomposed};
}

std::optional<std::string> DCIFileNamePattern::foldedRegex() const {
    if (!isUTF8()) return std::nullopt;
    const auto& formsOf = formsByFoldedCharacter();
    // Room for marks, which a decomposed name keeps after its letter, and ignorable characters.
    constexpr std::string_view kRoom = ".*";
    std::string regex = "^.*";
    size_t looseUntil = 0;  // characters that a longer form before them may stand for
    for (size_t i = 0; i < folded_.size(); ++i) {
        const char32_t c = folded_[i];
        const bool isLoose = i < looseUntil;
        std::u32string set(1, c);
        if (const auto forms = formsOf.find(c); forms != formsOf.end()) {
            set += forms->second.single;
            for (const auto& [form, fold] : forms->second.longer) {
                if (!std::u32string_view(folded_).substr(i).starts_with(fold)) continue;
                set += form;
                looseUntil = std::max(looseUntil, i + fold.size());
            }
        }
        if (c < kRawByteBase && firstDecomposed(c) != c) set += firstDecomposed(c);
        // Wildcards, bytes that are not UTF-8 and sets around a bracket's own characters are
        // left to the room around them: the whole-name check keeps only true matches.
        const bool isRoom = isLoose || c >= kRawByteBase ||
                            (set.size() > 1 && std::u32string_view(U"[]\\^-").find(c) != std::u32string_view::npos);
        if (!isRoom && set.size() == 1) {
            appendLiteral(c, regex);
        } else if (!isRoom) {
            regex += '[';
            for (const char32_t form : set) appendUTF8(form, regex);
            regex += ']';
        }
        if (!regex.ends_with(kRoom)) regex += kRoom;
    }
    return regex + "$";
}
