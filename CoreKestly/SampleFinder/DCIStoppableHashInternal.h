#pragma once

#include <optional>
#include <stop_token>
#include <string>

/// The SHA-256 of the regular file at `path` (a final link followed) as 64 lower-case
/// hexadecimal characters, as `KSTSha256ForFileAtPath` computes it, read in chunks of 64 KiB
/// with `stop` looked at before each: a stop ends the hash of a file of any size within a
/// chunk's read, and answers nothing, as does any failure. Anything but a regular file is
/// refused unopened, so a FIFO never blocks.
std::optional<std::string> DCISHA256UnlessStopped(const std::string& path, std::stop_token stop);
