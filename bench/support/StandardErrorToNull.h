#pragma once

#include <fcntl.h>
#include <unistd.h>

/// Sends standard error to /dev/null for the object's lifetime, so that the library's log
/// echo costs what a write costs and not what a terminal costs.
class StandardErrorToNull {
public:
    StandardErrorToNull() : saved_(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~StandardErrorToNull() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    StandardErrorToNull(const StandardErrorToNull&) = delete;
    StandardErrorToNull& operator=(const StandardErrorToNull&) = delete;

private:
    int saved_;
};
