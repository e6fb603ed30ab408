#pragma once

#include <optional>
#include <string>

/// The two cache files a command hashes through, as given on its command line.
struct CachePaths {
    std::string primary;
    std::string secondary;
};

/// The path made absolute against the working folder and standardised; nothing when it is
/// relative and the working folder is gone.
std::optional<std::string> absoluteStandardPath(const std::string& path);

/// Fills the paths not given with $XDG_CACHE_HOME/kestly/primary.sqlite and secondary.sqlite
/// (else under ~/.cache), making that folder. Answers the exit status of a failure, after
/// saying why on standard error, or 0.
int completeCachePaths(CachePaths& paths);
