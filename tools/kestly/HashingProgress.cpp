#include "HashingProgress.h"

#include <algorithm>
#include <cstdio>

std::string hashingProgress(uint64_t filesHashed, uint64_t files, uint64_t bytesHashed, uint64_t bytes,
                            std::chrono::duration<double> elapsed) {
    const double rate = elapsed.count() > 0 ? static_cast<double>(bytesHashed) / elapsed.count() : 0;
    char line[160];
    int length = std::snprintf(line, sizeof line, "hashing, %llu of %llu files, %.1f of %.1f MB, %.1f MB/s",
                               static_cast<unsigned long long>(filesHashed), static_cast<unsigned long long>(files),
                               static_cast<double>(bytesHashed) / 1e6, static_cast<double>(bytes) / 1e6, rate / 1e6);
    if (rate > 0 && length > 0 && static_cast<size_t>(length) < sizeof line) {
        const double left = static_cast<double>(bytes - std::min(bytes, bytesHashed)) / rate;
        std::snprintf(line + length, sizeof line - static_cast<size_t>(length), ", %.0f s left", left);
    }
    return line;
}
