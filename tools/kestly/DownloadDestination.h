#pragma once

#include <string>

/// Where `kestly download` puts the body of one URL that `-o` or `-d` names a file for.
struct DownloadDestination {
    enum class Kind {
        /// The name is this process's standard output (`-o /dev/stdout`): the body goes there.
        standardOutput,
        /// No regular file (a device, a FIFO): the body is written to it as it comes.
        direct,
        /// A regular file, or none yet: the body is fetched into `staging` beside it and
        /// replaces it only once complete.
        staged,
    };
    Kind kind;
    /// What the body is written to (direct) or replaces (staged): the file that any final
    /// links of the name lead to, as `curl -o` writes through them.
    std::string path;
    std::string staging;
};

/// The destination for a body saved under `name`. A staged destination's staging file is not
/// made yet: the worker makes it when the transfer starts.
DownloadDestination downloadDestinationFor(const std::string& name);

/// Moves a staged destination's whole body over the file it replaces, which lends it its mode
/// (and, for root, its owner and group); a new file keeps the mode the umask gave it. Answers
/// 0 or the errno of the step that failed.
int putStagedFileInPlace(const DownloadDestination& destination);

/// A name in $TMPDIR (or /tmp) for a body to wait in until standard output takes it; the
/// worker makes the file when the transfer starts.
std::string spoolFileName();
