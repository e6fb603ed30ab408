#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/DCIError.h"

#include <optional>
#include <string>

/// Moving, copying and creating items on disk, each answering the error that stopped it, or
/// nothing on success. Links are never followed: a link is moved, copied or removed as a link.
namespace DCIFileOperations {

/// Moves the item at `from` to `to`, replacing a file (or an empty folder) at `to` in one step;
/// a link is refused a move onto the item it points to. Across file systems the item is
/// copied beside `to` under a temporary name, put in place, and only then is the source
/// removed.
KESTLY_EXPORT std::optional<DCIError> moveItem(const std::string& from, const std::string& to);

/// Copies the item at `from` to `to`, which must not exist yet: a file with its permissions
/// (set-ID bits only when the copy keeps its owner and group) and modification time, as
/// shared blocks where the file system can, else copied in the kernel with its holes kept; a
/// link as a link; a folder with everything in it. FIFOs, sockets and devices are refused. A
/// copy that fails part way is removed again.
KESTLY_EXPORT std::optional<DCIError> copyItem(const std::string& from, const std::string& to);

/// Creates the folder at `path` and the folders missing above it; an existing folder is
/// success.
KESTLY_EXPORT std::optional<DCIError> createDirectory(const std::string& path);

}  // namespace DCIFileOperations
