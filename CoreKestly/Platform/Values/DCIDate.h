#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <chrono>
#include <cstdint>
#include <string>

/// A moment in time: whole seconds since 1970-01-01 00:00 UTC and the nanoseconds within that
/// second. Seconds are held apart from nanoseconds so that every date a file system can carry
/// (a signed 64-bit count of seconds) fits, not only the years 1677 to 2262 that one 64-bit
/// count of nanoseconds spans. The design counts absolute times as seconds from 1 January
/// 2001 00:00 UTC (the reference date); file dates are whole seconds since 1970.
class KESTLY_EXPORT DCIDate {
public:
    using Clock = std::chrono::system_clock;

    /// The current moment.
    static DCIDate now();
    /// Fractions are rounded to the nearest nanosecond; beyond the range of 64-bit seconds the
    /// date is clamped to its ends, and NaN is 1970.
    static DCIDate dateWithTimeIntervalSince1970(double seconds);
    static DCIDate dateWithTimeIntervalSinceReferenceDate(double seconds);
    /// The date `seconds` plus `nanoseconds` after 1970 (either may be negative, nanoseconds
    /// of any size are carried into seconds), as a file's status gives it; clamped to the
    /// range of 64-bit seconds.
    static DCIDate dateWithSecondsSince1970(int64_t seconds, int64_t nanoseconds = 0);

    explicit DCIDate(Clock::time_point timePoint);

    /// The moment on the system clock; a date beyond the clock's range is clamped to its ends.
    Clock::time_point timePoint() const;
    /// The whole seconds since 1970, rounded down: a moment before 1970 has negative seconds
    /// and non-negative nanoseconds.
    int64_t secondsSince1970() const { return seconds_; }
    /// The nanoseconds within the second, 0 to 999,999,999.
    int32_t nanoseconds() const { return nanoseconds_; }

    double timeIntervalSince1970() const;
    double timeIntervalSinceReferenceDate() const;
    /// Seconds from `other` to this date; negative when this date is earlier.
    double timeIntervalSinceDate(const DCIDate& other) const;

    /// "yyyy-MM-dd HH:mm:ss +0000", in UTC.
    std::string description() const;

    friend bool operator==(const DCIDate&, const DCIDate&) = default;
    friend auto operator<=>(const DCIDate&, const DCIDate&) = default;

private:
    DCIDate(int64_t seconds, int32_t nanoseconds) : seconds_(seconds), nanoseconds_(nanoseconds) {}

    int64_t seconds_;
    int32_t nanoseconds_;
};

/// Seconds between 1970-01-01 and 2001-01-01, both UTC.
inline constexpr double kDCITimeIntervalBetween1970AndReferenceDate = 978307200.0;

/// The current absolute time in seconds since the reference date, as the file manager's
/// notification stamps and the download workers' log times count it.
KESTLY_EXPORT double DCIAbsoluteTimeGetCurrent();
