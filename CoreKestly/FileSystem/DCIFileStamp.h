#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIDate.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// What the cache checks to trust a record: the facts of a file that change whenever its
/// content may have. An append changes the size, a rewrite the nanosecond modification time,
/// a file renamed over another (even one with the same times, as copies that keep times
/// make them) the inode. Device and inode also say which file it is wherever it is named, so
/// a renamed file is known by its stamp under its new name.
struct KESTLY_EXPORT DCIFileStamp {
    /// The modification time to the nanosecond (POSIX st_mtim).
    DCIDate mdate;
    uint64_t size;
    uint64_t inode;
    uint64_t device = 0;

    /// The stamp of the regular file at `path`, from one status read that follows links;
    /// nothing when there is no such file or it is no regular file (a FIFO, a device).
    static std::optional<DCIFileStamp> ofFile(const std::string& path);
    /// The stamp a status read has just given.
    static DCIFileStamp ofStatus(const struct stat& status);

    friend bool operator==(const DCIFileStamp&, const DCIFileStamp&) = default;
};

/// Which file or folder a status describes, wherever it is named: its device and inode.
struct DCIFileIdentity {
    uint64_t device;
    uint64_t inode;
    friend bool operator==(const DCIFileIdentity&, const DCIFileIdentity&) = default;
};

struct DCIFileIdentityHash {
    size_t operator()(const DCIFileIdentity& identity) const {
        return static_cast<size_t>(identity.inode * 0x9E3779B97F4A7C15ULL ^ identity.device);
    }
};
