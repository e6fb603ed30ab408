#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>

// Path work on the paths a manifest supplies, at a cost linear in their length however they
// are crafted.

/// Cleans manifest paths (`DCIManifestV2ProjectFileItem::cleanseManifestPath`), looking up
/// the home folder of each "~name" once: a lookup may be a network query, and a manifest
/// may name the same user in every entry. One cleaner serves one manifest.
class DCIManifestPathCleaner {
public:
    /// `path` with a leading "~" or "~name" expanded, ".." resolved in an absolute path, then
    /// without any empty, "." or ".." component, joined by single "/".
    std::string clean(std::string_view path);

private:
    std::unordered_map<std::string, std::string> expansions_;  // "~name" -> its home, or itself
};

/// The position of the first occurrence of `pattern` in `text`, or npos; 0 for an empty
/// pattern. Linear in both lengths (Knuth-Morris-Pratt), where `std::string::find` may take
/// their product.
size_t DCIManifestFind(std::string_view text, std::string_view pattern);

/// Whether `path` is one or more components joined by single "/", none of them empty, "."
/// or "..", and no NUL byte anywhere (a C call would stop there): a path that stays inside
/// whatever folder it is joined to.
bool DCIManifestIsPlainRelativePath(std::string_view path);
