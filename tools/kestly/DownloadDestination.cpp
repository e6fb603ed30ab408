// Where a body saved under a name lands. A name may be a link: replacing it would turn the
// link into a file (as root, `-o /dev/stdout` would replace the system's /dev/stdout), so the
// body goes where the links lead.

#include "DownloadDestination.h"

#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <random>

namespace {

// As many links as the system follows in one path before it gives up.
constexpr int kMaximumLinks = 40;

// The name a chain of links starting at `name` ends at; a link loop ends anywhere on it, and
// writing there then fails as opening the name would.
std::string finalLinkTarget(std::string name) {
    for (int links = 0; links < kMaximumLinks; ++links) {
        char target[PATH_MAX];
        const ssize_t length = readlink(name.c_str(), target, sizeof target);
        if (length <= 0 || length == sizeof target) break;
        std::string next(target, static_cast<size_t>(length));
        name = next.starts_with('/') ? next
                                     : KestlyPath::appendingComponent(KestlyPath::deletingLastComponent(name), next);
    }
    return name;
}

bool isStandardOutput(const struct stat& file) {
    struct stat output;
    return fstat(STDOUT_FILENO, &output) == 0 && output.st_dev == file.st_dev && output.st_ino == file.st_ino;
}

// A hidden name in `folder` that no other download picks: the worker makes the file when the
// transfer starts, so an interrupted run leaves at most one per worker to remove.
std::string unusedNameIn(const std::string& folder) {
    static std::mt19937_64 random{std::random_device{}()};
    char name[40];
    std::snprintf(name, sizeof name, ".kestly-download-%016llx", static_cast<unsigned long long>(random()));
    return KestlyPath::appendingComponent(folder, name);
}

}  // namespace

DownloadDestination downloadDestinationFor(const std::string& name) {
    struct stat target;
    // Most names are new files or plain ones: no link to follow, and one call tells.
    const bool found = lstat(name.c_str(), &target) == 0;
    const bool link = found && S_ISLNK(target.st_mode);
    if (link ? stat(name.c_str(), &target) == 0 : found) {
        // A terminal or /dev/null takes the body as well through its name.
        if (isStandardOutput(target) && !S_ISCHR(target.st_mode)) return {DownloadDestination::Kind::standardOutput, {}, {}};
        if (!S_ISREG(target.st_mode)) return {DownloadDestination::Kind::direct, name, {}};
    }
    std::string file = link ? finalLinkTarget(name) : name;
    std::string staging = unusedNameIn(KestlyPath::deletingLastComponent(file));
    return {DownloadDestination::Kind::staged, std::move(file), std::move(staging)};
}

int putStagedFileInPlace(const DownloadDestination& destination) {
    const char* staging = destination.staging.c_str();
    // Most destinations are new: one call puts the file there, with the mode it was made with.
    // A file found there after all, or a file system that cannot tell, takes the long way.
    if (renameat2(AT_FDCWD, staging, AT_FDCWD, destination.path.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EEXIST && errno != EINVAL) return errno;
    struct stat replaced;
    if (stat(destination.path.c_str(), &replaced) == 0) {
        // Owner first: a change of owner clears the set-ID bits that the mode then restores.
        if (geteuid() == 0 && chown(staging, replaced.st_uid, replaced.st_gid) != 0) return errno;
        if (chmod(staging, replaced.st_mode & 07777) != 0) return errno;
    }
    return rename(staging, destination.path.c_str()) == 0 ? 0 : errno;
}

std::string spoolFileName() {
    const char* folder = std::getenv("TMPDIR");
    return unusedNameIn(folder && *folder ? folder : "/tmp");
}
