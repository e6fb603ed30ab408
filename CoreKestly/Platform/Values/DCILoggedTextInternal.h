#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Every value from outside (a manifest, a server, a URL the host was handed) is cut short and
// kept to one harmless line before it reaches a log line: a manifest of a few hundred
// kilobytes could otherwise write gigabytes, one long folder name per entry, and a line break
// or a terminal escape in a name could forge an entry or act on the terminal showing the log.

/// The most bytes of one outside value a log line shows, before the mark "…".
inline constexpr size_t kDCILoggedTextBytes = 1024;

/// The largest position at or before `position` that starts a UTF-8 character (or ends
/// `text`), so that a cut never splits one.
size_t DCIUTF8CharacterBoundary(std::string_view text, size_t position);

/// `text` as a log line shows it: control characters as "?", whole up to `limit` bytes, else
/// its first whole characters within that many bytes followed by "…".
std::string DCILoggedText(std::string_view text, size_t limit = kDCILoggedTextBytes);
