#include "OrderedBodies.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

constexpr size_t kCopyBytes = 256 * 1024;

bool writeWhole(int file, const char* bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = write(file, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

OrderedBodies::~OrderedBodies() {
    for (const Body& body : bodies_) {
        if (body.spool >= 0) close(body.spool);
    }
    removeSpools();
}

void OrderedBodies::add(std::string spoolName) { bodies_.push_back({std::move(spoolName)}); }

void OrderedBodies::started(size_t index) {
    Body& body = bodies_[index];
    if (body.spool >= 0) return;
    // Read-write, for the hole punching; the worker's own descriptor keeps writing to it.
    body.spool = open(body.spoolName.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    unlink(body.spoolName.c_str());
    body.spoolName.clear();
}

void OrderedBodies::ended(size_t index) {
    Body& body = bodies_[index];
    body.ended = true;
    // Counted bodies have no order to keep: each is counted whole when it ends.
    if (!writes_ && body.spool >= 0) {
        drain(body);
        close(std::exchange(body.spool, -1));
    }
}

bool OrderedBodies::pump() {
    if (!writes_) return true;
    for (; next_ < bodies_.size(); ++next_) {
        Body& body = bodies_[next_];
        if (body.spool >= 0 && !drain(body)) return false;
        if (!body.ended) return true;
        if (body.spool >= 0) close(std::exchange(body.spool, -1));
    }
    return true;
}

bool OrderedBodies::drain(Body& body) {
    static char buffer[kCopyBytes];
    for (;;) {
        const ssize_t count = pread(body.spool, buffer, sizeof buffer, static_cast<off_t>(body.copied));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return true;
        if (writes_ && !writeWhole(STDOUT_FILENO, buffer, static_cast<size_t>(count))) return false;
        // Best effort: a file system without holes keeps the bytes until the spool closes.
        fallocate(body.spool, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(body.copied), count);
        body.copied += static_cast<uint64_t>(count);
    }
}

void OrderedBodies::removeSpools() const {
    for (const Body& body : bodies_) {
        if (!body.spoolName.empty()) unlink(body.spoolName.c_str());
    }
}
