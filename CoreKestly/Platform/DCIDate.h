#pragma once

#include <chrono>
#include <string>

/// A moment in time, kept to the clock's full precision. The design counts absolute times
/// as seconds from 1 January 2001 00:00 UTC (the reference date); file dates are whole
/// seconds since 1970.
class DCIDate {
public:
    using Clock = std::chrono::system_clock;

    /// The current moment.
    static DCIDate now();
    static DCIDate dateWithTimeIntervalSince1970(double seconds);
    static DCIDate dateWithTimeIntervalSinceReferenceDate(double seconds);

    explicit DCIDate(Clock::time_point timePoint) : timePoint_(timePoint) {}

    Clock::time_point timePoint() const { return timePoint_; }
    double timeIntervalSince1970() const;
    double timeIntervalSinceReferenceDate() const;
    /// Seconds from `other` to this date; negative when this date is earlier.
    double timeIntervalSinceDate(const DCIDate& other) const;

    /// "yyyy-MM-dd HH:mm:ss +0000", in UTC.
    std::string description() const;

    friend bool operator==(const DCIDate&, const DCIDate&) = default;
    friend auto operator<=>(const DCIDate&, const DCIDate&) = default;

private:
    Clock::time_point timePoint_;
};

/// Seconds between 1970-01-01 and 2001-01-01, both UTC.
inline constexpr double kDCITimeIntervalBetween1970AndReferenceDate = 978307200.0;

/// The current absolute time in seconds since the reference date, as the file manager's
/// notification stamps and the download workers' log times count it.
double DCIAbsoluteTimeGetCurrent();
