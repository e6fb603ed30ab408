#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <string>
#include <string_view>
#include <vector>

/// Path arithmetic on UTF-8 strings, by the rules every path in the library follows. Paths are
/// handled as bytes, which is safe because '/' never occurs inside a multi-byte character.
/// Only tilde expansion looks outside the string (at $HOME and the user database); nothing
/// here touches the file system.
namespace KestlyPath {

/// The path with a leading tilde expanded, empty and "." components removed, ".." resolved
/// against the component before it in an absolute path ("/.." is "/") and kept in a relative
/// one, and no trailing separator. "~" and "~/..." expand to $HOME, or to the user database's
/// home when $HOME is unset or empty; "~name" expands to that user's home and is left as it is
/// for an unknown user. "/" stays "/", "" stays "", and a relative path of only "."
/// components becomes ".".
KESTLY_EXPORT std::string standardize(std::string_view path);

/// "/" first for an absolute path, then every non-empty component in order. A trailing
/// separator adds nothing: "a/b/" gives {"a", "b"}.
KESTLY_EXPORT std::vector<std::string> components(std::string_view path);

/// `base` and `component` with exactly one "/" between them, whatever separators either side
/// brings. An empty base gives the component unchanged; an empty component (or one of only
/// separators) gives the base unchanged.
KESTLY_EXPORT std::string appendingComponent(std::string_view base, std::string_view component);

/// The last component, trailing separators ignored: "/" for "/", "" for "".
KESTLY_EXPORT std::string lastComponent(std::string_view path);

/// The path without its last component and the separators before it: "/a" gives "/", "a"
/// gives "", "a/b/" gives "a"; "/" and "" stay as they are.
KESTLY_EXPORT std::string deletingLastComponent(std::string_view path);

/// What follows the last "." of the last component, or "" when there is none. A leading dot
/// names a hidden file, not an extension: ".hidden" has none, "a.tar.gz" has "gz".
KESTLY_EXPORT std::string extension(std::string_view path);

/// The path, without trailing separators, less "." and its extension; unchanged but for those
/// separators when there is no extension.
KESTLY_EXPORT std::string deletingExtension(std::string_view path);

/// Whether the standardised `path` is `folder` or lies below it, component by component: a
/// sibling "/a/bc" is not below "/a/b". Every path is below "/".
KESTLY_EXPORT bool isSameOrBelow(std::string_view path, std::string_view folder);

}  // namespace KestlyPath
