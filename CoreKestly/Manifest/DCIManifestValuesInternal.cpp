#include "CoreKestly/Manifest/DCIManifestValuesInternal.h"

#include <array>
#include <chrono>
#include <string_view>
#include <utility>

namespace {

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// The number written by `count` decimal digits at `position`, or -1 when they are not all digits.
int digitsAt(std::string_view text, size_t position, size_t count) {
    int value = 0;
    for (size_t i = position; i < position + count; ++i) {
        if (!isDigit(text[i])) return -1;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

// The zone offset in minutes east of UTC, from "Z", "+hhmm" or "+hh:mm" (or "-"), or nothing.
std::optional<int> zoneOffsetMinutes(std::string_view zone) {
    if (zone == "Z") return 0;
    if (zone.size() != 5 && zone.size() != 6) return std::nullopt;
    if (zone[0] != '+' && zone[0] != '-') return std::nullopt;
    if (zone.size() == 6 && zone[3] != ':') return std::nullopt;
    const int hours = digitsAt(zone, 1, 2);
    const int minutes = digitsAt(zone, zone.size() - 2, 2);
    if (hours < 0 || hours > 23 || minutes < 0 || minutes > 59) return std::nullopt;
    const int offset = hours * 60 + minutes;
    return zone[0] == '-' ? -offset : offset;
}

bool isSchemeCharacter(char c) { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; }

// RFC 3986's unreserved and reserved characters; "%" is checked apart with its two digits.
constexpr std::array<bool, 256> kURLCharacters = [] {
    std::array<bool, 256> table{};
    for (const char c : std::string_view("-._~:/?#[]@!$&'()*+,;=")) table[static_cast<unsigned char>(c)] = true;
    for (size_t c = 0; c < table.size(); ++c) {
        table[c] = table[c] || isAlpha(static_cast<char>(c)) || isDigit(static_cast<char>(c));
    }
    return table;
}();

bool isURLCharacter(char c) { return kURLCharacters[static_cast<unsigned char>(c)]; }

}  // namespace

std::optional<DCIDate> DCIManifestDateFromString(std::string_view text) {
    constexpr size_t kLocalLength = 19;  // yyyy-MM-ddTHH:mm:ss
    if (text.size() <= kLocalLength) return std::nullopt;
    if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':') return std::nullopt;
    const int year = digitsAt(text, 0, 4);
    const int month = digitsAt(text, 5, 2);
    const int day = digitsAt(text, 8, 2);
    const int hour = digitsAt(text, 11, 2);
    const int minute = digitsAt(text, 14, 2);
    const int second = digitsAt(text, 17, 2);
    const auto offset = zoneOffsetMinutes(text.substr(kLocalLength));
    if (year < 0 || month < 0 || day < 0 || hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 ||
        second > 59 || !offset) {
        return std::nullopt;
    }
    using namespace std::chrono;
    const year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                              std::chrono::day(static_cast<unsigned>(day))};
    if (!date.ok()) return std::nullopt;
    const sys_seconds utc = sys_days(date) + hours(hour) + minutes(minute - *offset) + seconds(second);
    // The clock counts nanoseconds in 64 bits: about 1678 to 2261.
    constexpr auto kEarliest = ceil<seconds>(DCIDate::Clock::time_point::min().time_since_epoch());
    constexpr auto kLatest = floor<seconds>(DCIDate::Clock::time_point::max().time_since_epoch());
    if (utc.time_since_epoch() < kEarliest || utc.time_since_epoch() > kLatest) return std::nullopt;
    return DCIDate(time_point_cast<DCIDate::Clock::duration>(utc));
}

bool DCIManifestIsURL(std::string_view text) {
    if (text.empty()) return false;
    bool seenFragment = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) return false;
            i += 2;
        } else if (!isURLCharacter(c) || (c == '#' && std::exchange(seenFragment, true))) {
            return false;
        }
    }
    // A ":" in the first segment ends a scheme, which must then be well formed; a relative
    // reference cannot have one there.
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon > text.find_first_of("/?#")) return true;
    if (colon == 0 || !isAlpha(text[0])) return false;
    for (size_t i = 1; i < colon; ++i) {
        if (!isSchemeCharacter(text[i])) return false;
    }
    return true;
}
