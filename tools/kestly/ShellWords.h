#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// `path` as `kestly watch` prints it: as it is, unless that would be ambiguous or act on the
/// terminal, that is when it holds " ->" or ": " (which separate the parts of a line), a
/// quote, "$", a backslash, a character that acts on a terminal or bytes that are not UTF-8. Then it is quoted the way
/// `ls --quoting-style=shell-escape` quotes, '...' with $'\n' or $'\xFF' for those
/// characters, so that every line reads back and the path can be given back as a word.
std::string shellEscapedPath(std::string_view path);

/// The words of `line` as a shell splits and unquotes them, without expanding anything:
/// white space separates words; '...' keeps its text as it is; "..." too, but for \" \\ \$ and \`;
/// $'...' takes C's escapes (\n, \t, \xHH, \ooo...); a backslash elsewhere keeps the next
/// character. Nothing when a quote or an escape is left unfinished.
std::optional<std::vector<std::string>> shellWords(std::string_view line);
