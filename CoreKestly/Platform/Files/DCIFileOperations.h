#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIError.h"

#include <optional>
#include <string>
#include <string_view>

/// Moving, copying and creating items on disk, each answering the error that stopped it, or
/// nothing on success. Links are never followed: a link is moved, copied or removed as a link.
/// A path holding a NUL character is refused (EINVAL) before anything is touched.
///
/// A copy is made under a staging name beside its destination, hidden and recognisable
/// (`isStagingName`), and renamed into place only once complete, so that a copy cut short
/// never lies under the final name. A staging item whose process has ended is what an
/// interrupted copy left (`isAbandonedStagingName`): whoever watches the folder removes it.
namespace DCIFileOperations {

/// Moves the item at `from` to `to`, replacing a file (or an empty folder) at `to` in one step;
/// a link is refused a move onto the item it points to. When both paths name one item (a
/// hard link, a second mount of the same folder) nothing changes and the move succeeds.
/// Across file systems the item is copied to a staging name beside `to`, put in place, and
/// only then is the source removed.
KESTLY_EXPORT std::optional<DCIError> moveItem(const std::string& from, const std::string& to);

/// Copies the item at `from` to `to`, which must not exist yet and is never replaced: a file
/// with its permissions (set-ID bits only when the copy keeps its owner and group) and
/// modification time, as shared blocks where the file system can, else copied in the kernel
/// with its holes kept; a link as a link; a folder with everything in it. FIFOs, sockets and
/// devices are refused, and so is a folder copied into itself, through any mount. A copy that
/// fails part way is removed again.
KESTLY_EXPORT std::optional<DCIError> copyItem(const std::string& from, const std::string& to);

/// Creates the folder at `path` and the folders missing above it; an existing folder is
/// success.
KESTLY_EXPORT std::optional<DCIError> createDirectory(const std::string& path);

/// Whether `name` (one path component) is a staging name of a move or a copy, this process's
/// or another's: ".kestly-staging-<process number>-<count>".
KESTLY_EXPORT bool isStagingName(std::string_view name);

/// Whether `name` is a staging name whose process no longer runs: what it names was left by
/// a copy that never finished.
KESTLY_EXPORT bool isAbandonedStagingName(std::string_view name);

/// Removes the entry `name` of the folder at `folderPath`, with everything in it, when it is
/// abandoned (`isAbandonedStagingName`); true when it was.
KESTLY_EXPORT bool removeAbandonedStagingItem(const std::string& folderPath, std::string_view name);

}  // namespace DCIFileOperations
