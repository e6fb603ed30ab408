#include "CoreKestly/Platform/DCIDate.h"

#include <ctime>

namespace {
DCIDate::Clock::time_point timePointFromSeconds(double seconds) {
    const auto duration = std::chrono::duration<double>(seconds);
    return DCIDate::Clock::time_point(std::chrono::duration_cast<DCIDate::Clock::duration>(duration));
}
}  // namespace

DCIDate DCIDate::now() { return DCIDate(Clock::now()); }

DCIDate DCIDate::dateWithTimeIntervalSince1970(double seconds) {
    return DCIDate(timePointFromSeconds(seconds));
}

DCIDate DCIDate::dateWithTimeIntervalSinceReferenceDate(double seconds) {
    return DCIDate(timePointFromSeconds(seconds + kDCITimeIntervalBetween1970AndReferenceDate));
}

double DCIDate::timeIntervalSince1970() const {
    return std::chrono::duration<double>(timePoint_.time_since_epoch()).count();
}

double DCIDate::timeIntervalSinceReferenceDate() const {
    return timeIntervalSince1970() - kDCITimeIntervalBetween1970AndReferenceDate;
}

double DCIDate::timeIntervalSinceDate(const DCIDate& other) const {
    return std::chrono::duration<double>(timePoint_ - other.timePoint_).count();
}

std::string DCIDate::description() const {
    const std::time_t seconds = Clock::to_time_t(timePoint_);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return text;
}

double DCIAbsoluteTimeGetCurrent() { return DCIDate::now().timeIntervalSinceReferenceDate(); }
