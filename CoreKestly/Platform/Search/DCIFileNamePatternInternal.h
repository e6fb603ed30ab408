#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A whole-file-name pattern as the metadata query matches it: `?` stands for any one character
/// and `*` for any run of characters; every other character stands for itself, compared in a
/// folded form that ignores case, compatibility variants and marks (utf8proc's NFKC_Casefold
/// with marks stripped), so "cafe" matches "Café" whether the é is one character or an e and
/// a combining accent, and "viet nam" matches "Việt Nam". A name or pattern that is not valid
/// UTF-8 is compared byte for byte, unfolded.
class DCIFileNamePattern {
public:
    explicit DCIFileNamePattern(std::string_view pattern);

    /// Whether the whole of `fileName` (one path component) matches.
    bool matches(std::string_view fileName) const;
    /// Whether the pattern is valid UTF-8, and so compared folded.
    bool isUTF8() const;

    /// Globs for the locate program, run with `--ignore-case --basename` in a UTF-8 locale, for
    /// the names spelt as the pattern is, composed or decomposed: each of them keeps the
    /// pattern's letters, so the program can look them up in its index. One glob, or two when
    /// the composed and decomposed spellings differ.
    std::vector<std::string> spellingGlobs() const;

    /// An extended regular expression for the same program, run with `--basename --regex` and
    /// case-sensitive, that matches at least every name `matches` accepts: each character
    /// becomes the set of the characters, in every case, that fold to it, with room after it
    /// for marks. The program reads its whole database for it; a glob of the same sets would
    /// take it ten times as long. Nothing for a pattern that is not UTF-8, which matches only
    /// its own bytes: its spellings find all there is. Names that are not UTF-8 never match an
    /// expression, so the scan alone finds them for a pattern that is.
    std::optional<std::string> foldedRegex() const;

private:
    std::string text_;
    std::u32string folded_;
};
