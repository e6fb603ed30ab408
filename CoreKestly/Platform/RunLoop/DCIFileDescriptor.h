#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <unistd.h>

#include <utility>

/// Owns one open file descriptor and closes it when it goes. Whatever watches the descriptor
/// (a run-loop source) must be removed before this closes it: declare the source after the
/// descriptor so that it is destroyed first.
class KESTLY_EXPORT DCIFileDescriptor {
public:
    DCIFileDescriptor() = default;
    explicit DCIFileDescriptor(int fd) : fd_(fd) {}
    DCIFileDescriptor(DCIFileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    DCIFileDescriptor& operator=(DCIFileDescriptor&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    DCIFileDescriptor(const DCIFileDescriptor&) = delete;
    DCIFileDescriptor& operator=(const DCIFileDescriptor&) = delete;
    ~DCIFileDescriptor() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    /// Hands the descriptor over without closing it, for a caller that must see close's outcome.
    int release() { return std::exchange(fd_, -1); }

    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};
