#pragma once

#include "CoreKestly/DCLog/DCLogger.h"
#include "support/TemporaryDirectory.h"

#include <cstddef>
#include <string>

/// What the library writes to its log file from the moment this is made. Each read flushes the
/// logger first, so every line logged before the call is there.
class LogSince {
public:
    LogSince() : start_(contents().size()) {}

    /// The entries written since, each "date: message\n".
    std::string text() const { return contents().substr(start_); }
    /// Whether `message` was written as one whole entry.
    bool has(const std::string& message) const { return count(message) > 0; }
    /// How many entries are exactly `message`.
    size_t count(const std::string& message) const {
        const std::string logged = text(), entry = ": " + message + "\n";
        size_t found = 0;
        for (size_t at = logged.find(entry); at != std::string::npos; at = logged.find(entry, at + 1)) ++found;
        return found;
    }

private:
    static std::string contents() {
        DCLogger::sharedLogger().flush();
        return readWholeFile(DCLogger::sharedLogger().currentLogFileURL());
    }

    size_t start_;
};
