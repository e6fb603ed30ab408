#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Every value a manifest supplies is cut short before it reaches a log line: a manifest of a
// few hundred kilobytes can otherwise write gigabytes, one long folder name per entry.

/// The most bytes of one manifest value a log line shows, before the mark "…".
inline constexpr size_t kDCIManifestLoggedBytes = 1024;

/// The largest position at or before `position` that starts a UTF-8 character (or ends
/// `text`), so that a cut never splits one.
size_t DCIManifestCharacterBoundary(std::string_view text, size_t position);

/// `text` as a log line shows it: whole up to `kDCIManifestLoggedBytes` bytes, else its first
/// whole characters within that many bytes followed by "…".
std::string DCIManifestLogged(std::string_view text);
