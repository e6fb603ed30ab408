#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The content identity of a file: the SHA-256 of its whole content as 64 lower-case
// hexadecimal characters, byte 0 of the digest first.
//
// Both functions stream the file through one 4,096-byte buffer whatever its size, follow a
// final symbolic link, and answer nothing on any failure (nothing at the path, a folder, a
// dangling link, no permission, a read error part-way): a partial digest is never returned.
// They log nothing and touch no cache. Safe to call from any number of threads at once.

/// Hashes the file at `path` as fast as it can be read.
KESTLY_EXPORT std::optional<std::string> KSTSha256ForFileAtPath(const std::string& path);

/// The same digest as `KSTSha256ForFileAtPath`, but the calling thread rests so that it
/// works at most a little over 40 ms at a time: after each slice of more than 40 ms of
/// reading and hashing it sleeps 14 ms, and after the last chunk, success or failure, it
/// sleeps 0.35 of the working time of the last slice. Only the calling thread is slowed.
KESTLY_EXPORT std::optional<std::string> KSTSha256ForFileAtPathEco(const std::string& path);

/// A SHA-256 digest as its 32 bytes, byte 0 first: how trees and caches hold a hash, at half
/// the size of its hex text and with no allocation of its own.
using KSTSha256Digest = std::array<uint8_t, 32>;
/// The digest as 64 lower-case hex characters, as the functions above answer it.
KESTLY_EXPORT std::string KSTHexFromDigest(const KSTSha256Digest& digest);
/// The digest that 64 hex characters (either case) spell; nothing for any other text.
KESTLY_EXPORT std::optional<KSTSha256Digest> KSTDigestFromHex(std::string_view hex);
