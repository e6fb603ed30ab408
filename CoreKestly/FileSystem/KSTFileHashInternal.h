#pragma once

#include "CoreKestly/FileSystem/KSTFileHash.h"

#include <atomic>
#include <optional>
#include <string>

/// What hashing a file came to: whether it could be opened as a regular file for reading at
/// all, and its hash.
struct KSTFileHashOutcome {
    bool opened = false;
    std::optional<std::string> sha;
};

/// `KSTSha256ForFileAtPath`, or with `eco` `KSTSha256ForFileAtPathEco`, giving up with nothing
/// between two chunks once `stop` is set: a stopping watcher must not wait for a large file.
/// Telling a file that may not be read from one that fails part-way costs no separate check.
KSTFileHashOutcome KSTSha256OfFileAtPath(const std::string& path, bool eco, const std::atomic<bool>& stop);
