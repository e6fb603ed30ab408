#pragma once

#include "CoreKestly/Platform/Values/DCIDate.h"

#include <optional>
#include <string_view>

// The two manifest values whose text has a form of its own: the creation date and the download
// URL. Text of any other form is simply not such a value; nothing is logged.

/// "yyyy-MM-ddTHH:mm:ss" followed by a zone offset, as +hhmm, -hhmm, +hh:mm, -hh:mm or Z, with
/// every field in its range (hours 0-23, a day that the month has, an offset of at most
/// 23:59) and the moment within the clock's range (the years 1678 to 2261). Fractions of a
/// second, a missing zone, spaces and any other text give nothing.
std::optional<DCIDate> DCIManifestDateFromString(std::string_view text);

/// Whether `text` is a URI reference by RFC 3986's grammar: not empty; only unreserved,
/// reserved and well-formed percent-escaped characters (no spaces, controls or raw non-ASCII);
/// a valid scheme before the first ":" that comes ahead of any "/", "?" or "#"; at most one
/// "#". Relative references are URLs too, as for the platform's URL parser.
bool DCIManifestIsURL(std::string_view text);
