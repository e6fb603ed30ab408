#include "CoreKestly/Platform/Values/DCIDate.h"

#include <cmath>
#include <ctime>
#include <limits>

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
// 2^63 exactly: the first double past the largest 64-bit second.
constexpr double kSecondsLimit = 9223372036854775808.0;

}  // namespace

DCIDate::DCIDate(Clock::time_point timePoint) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timePoint);
    seconds_ = seconds.time_since_epoch().count();
    nanoseconds_ = static_cast<int32_t>(std::chrono::nanoseconds(timePoint - seconds).count());
}

DCIDate DCIDate::now() { return DCIDate(Clock::now()); }

DCIDate DCIDate::dateWithTimeIntervalSince1970(double seconds) {
    if (std::isnan(seconds)) return DCIDate(0, 0);
    double wholeSeconds = std::floor(seconds);
    if (wholeSeconds >= kSecondsLimit) return DCIDate(std::numeric_limits<int64_t>::max(), 0);
    if (wholeSeconds < -kSecondsLimit) return DCIDate(std::numeric_limits<int64_t>::min(), 0);
    auto nanoseconds = std::llround((seconds - wholeSeconds) * static_cast<double>(kNanosecondsPerSecond));
    return dateWithSecondsSince1970(static_cast<int64_t>(wholeSeconds), nanoseconds);
}

DCIDate DCIDate::dateWithTimeIntervalSinceReferenceDate(double seconds) {
    return dateWithTimeIntervalSince1970(seconds + kDCITimeIntervalBetween1970AndReferenceDate);
}

DCIDate DCIDate::dateWithSecondsSince1970(int64_t seconds, int64_t nanoseconds) {
    int64_t carried = nanoseconds / kNanosecondsPerSecond;
    int64_t remainder = nanoseconds % kNanosecondsPerSecond;
    if (remainder < 0) {
        remainder += kNanosecondsPerSecond;
        --carried;
    }
    int64_t total;
    if (__builtin_add_overflow(seconds, carried, &total)) {
        return carried > 0 ? DCIDate(std::numeric_limits<int64_t>::max(), 0)
                           : DCIDate(std::numeric_limits<int64_t>::min(), 0);
    }
    return DCIDate(total, static_cast<int32_t>(remainder));
}

DCIDate::Clock::time_point DCIDate::timePoint() const {
    using Duration = Clock::duration;
    const auto secondsLimit = std::chrono::duration_cast<std::chrono::seconds>(Duration::max()).count();
    if (seconds_ >= secondsLimit) return Clock::time_point::max();
    if (seconds_ <= -secondsLimit) return Clock::time_point::min();
    return Clock::time_point(std::chrono::duration_cast<Duration>(std::chrono::seconds(seconds_)) +
                             std::chrono::duration_cast<Duration>(std::chrono::nanoseconds(nanoseconds_)));
}

double DCIDate::timeIntervalSince1970() const {
    return static_cast<double>(seconds_) + static_cast<double>(nanoseconds_) * 1e-9;
}

double DCIDate::timeIntervalSinceReferenceDate() const {
    return timeIntervalSince1970() - kDCITimeIntervalBetween1970AndReferenceDate;
}

double DCIDate::timeIntervalSinceDate(const DCIDate& other) const {
    // In doubles: the difference of two far-apart 64-bit seconds overflows as an integer.
    return (static_cast<double>(seconds_) - static_cast<double>(other.seconds_)) +
           static_cast<double>(nanoseconds_ - other.nanoseconds_) * 1e-9;
}

std::string DCIDate::description() const {
    const std::time_t seconds = seconds_;
    std::tm utc{};
    char text[64];
    // gmtime_r fails only for years beyond what an int holds.
    if (!gmtime_r(&seconds, &utc) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc) == 0) {
        return std::to_string(seconds_) + " seconds since 1970";
    }
    return text;
}

double DCIAbsoluteTimeGetCurrent() { return DCIDate::now().timeIntervalSinceReferenceDate(); }
