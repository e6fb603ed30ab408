#pragma once

#include <string>
#include <string_view>

/// A whole-file-name pattern as the metadata query matches it: case and diacritics are
/// ignored, `?` stands for any one character and `*` for any run of characters; every other
/// character stands for itself. Names are UTF-8; bytes that are not UTF-8 match only
/// themselves.
class DCIFileNamePattern {
public:
    explicit DCIFileNamePattern(std::string_view pattern);

    /// Whether the whole of `fileName` (one path component) matches.
    bool matches(std::string_view fileName) const;

    /// A glob for the locate program, run with `--ignore-case --basename` in a UTF-8 locale,
    /// that matches at least every name `matches` accepts: each letter becomes the set of its
    /// accented forms, the glob's own special characters are escaped.
    std::string locateGlob() const;

private:
    std::u32string folded_;
};
