#pragma once

#include "CoreKestly/FileSystem/KSTFileHash.h"

#include <atomic>
#include <optional>
#include <string>

/// `KSTSha256ForFileAtPath`, or with `eco` `KSTSha256ForFileAtPathEco`, giving up with nothing
/// between two chunks once `stop` is set: a stopping watcher must not wait for a large file.
std::optional<std::string> KSTSha256ForFileAtPath(const std::string& path, bool eco, const std::atomic<bool>& stop);
