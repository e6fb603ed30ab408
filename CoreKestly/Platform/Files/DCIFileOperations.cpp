#include "CoreKestly/Platform/Files/DCIFileOperations.h"

#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <initializer_list>
#include <limits>
#include <string_view>
#include <vector>

namespace {

DCIError failure(const std::string& operation, const std::string& path) {
    return DCIError::posixError(errno, operation + " " + path);
}

// Removes the entry `name` of the folder open as `folder`, a folder with its contents. Each
// level is opened through the one above without following links, so a folder swapped for a
// link meanwhile is removed as the link, never followed.
void removeEntry(int folder, const char* name) {
    if (unlinkat(folder, name, 0) == 0 || errno != EISDIR) return;
    const int descriptor = openat(folder, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) return;
    DIR* directory = fdopendir(descriptor);
    if (!directory) {
        close(descriptor);
        return;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(directory)) {
        const std::string_view entryName = entry->d_name;
        if (entryName != "." && entryName != "..") names.emplace_back(entryName);
    }
    for (const auto& entryName : names) removeEntry(dirfd(directory), entryName.c_str());
    closedir(directory);
    unlinkat(folder, name, AT_REMOVEDIR);
}

// Removes what a failed copy left, or a moved item's source.
void removeItem(const std::string& path) { removeEntry(AT_FDCWD, path.c_str()); }

// Copies the bytes from `at` to `end` to the same offsets: in the kernel, else through a
// buffer (a file system pair that copy_file_range does not serve).
bool copyRange(int source, int destination, off_t at, off_t end) {
    for (off_t out = at; at < end;) {
        const ssize_t copied = copy_file_range(source, &at, destination, &out, static_cast<size_t>(end - at), 0);
        if (copied == 0) return true;
        if (copied > 0 || errno == EINTR) continue;
        if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return false;
        break;
    }
    char buffer[64 * 1024];
    while (at < end) {
        const ssize_t length = pread(source, buffer, std::min(sizeof buffer, static_cast<size_t>(end - at)), at);
        if (length == 0) return true;
        if (length < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        for (ssize_t written = 0; written < length;) {
            const ssize_t step = pwrite(destination, buffer + written, static_cast<size_t>(length - written), at + written);
            if (step < 0 && errno != EINTR) return false;
            if (step > 0) written += step;
        }
        at += length;
    }
    return true;
}

// Copies the bytes: shared blocks when the file system has them, else each run of data at its
// offset, so that holes stay holes: a file of a terabyte of holes must not fill the disk.
bool copyContents(int source, int destination) {
    if (ioctl(destination, FICLONE, source) == 0) return true;
    struct stat status;
    if (fstat(source, &status) != 0) return false;
    off_t data = lseek(source, 0, SEEK_DATA);
    while (data >= 0 && data < status.st_size) {
        const off_t hole = lseek(source, data, SEEK_HOLE);
        if (hole < 0 || !copyRange(source, destination, data, hole)) return false;
        data = lseek(source, hole, SEEK_DATA);
    }
    // ENXIO: no data after the last hole.
    return (data >= 0 || errno == ENXIO) && ftruncate(destination, status.st_size) == 0;
}

std::optional<DCIError> copyFile(const std::string& from, const std::string& to, const struct stat& status) {
    // Non-blocking and checked once open: a FIFO swapped in since the look must not hang us.
    DCIFileDescriptor source(open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat opened;
    if (!source || fstat(source.get(), &opened) != 0) return failure("open", from);
    if (!S_ISREG(opened.st_mode) || opened.st_ino != status.st_ino || opened.st_dev != status.st_dev) {
        errno = EAGAIN;
        return failure("copy (changed while being copied)", from);
    }
    // A copy owned by someone else than its source must not run as the source's owner: copied
    // by root, another user's set-user-ID program would become root's.
    mode_t mode = status.st_mode & 07777;
    if (status.st_uid != geteuid() || status.st_gid != getegid()) mode &= ~mode_t{S_ISUID | S_ISGID};
    DCIFileDescriptor destination(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!destination) return failure("create", to);
    const timespec times[2] = {status.st_atim, status.st_mtim};
    if (!copyContents(source.get(), destination.get()) || fchmod(destination.get(), mode) != 0 ||
        futimens(destination.get(), times) != 0) {
        DCIError error = failure("copy to", to);
        destination.reset();
        unlink(to.c_str());
        return error;
    }
    // A late write error (a full disk over the network) shows only here.
    if (close(destination.release()) != 0) {
        DCIError error = failure("copy to", to);
        unlink(to.c_str());
        return error;
    }
    return std::nullopt;
}

std::optional<DCIError> copyTree(const std::string& from, const std::string& to) {
    struct stat status;
    if (lstat(from.c_str(), &status) != 0) return failure("copy", from);
    if (S_ISREG(status.st_mode)) return copyFile(from, to, status);
    if (S_ISLNK(status.st_mode)) {
        std::string target(static_cast<size_t>(status.st_size) + 1, '\0');
        const ssize_t length = readlink(from.c_str(), target.data(), target.size());
        if (length < 0) return failure("read link", from);
        target.resize(static_cast<size_t>(length));
        if (symlink(target.c_str(), to.c_str()) != 0) return failure("create link", to);
        return std::nullopt;
    }
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTSUP;
        return failure("copy (not a file, link or folder)", from);
    }
    if (mkdir(to.c_str(), (status.st_mode & 07777) | S_IRWXU) != 0) return failure("create folder", to);
    DIR* directory = opendir(from.c_str());
    if (!directory) {
        DCIError error = failure("list", from);
        rmdir(to.c_str());
        return error;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(directory)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    closedir(directory);
    for (const auto& name : names) {
        if (auto error = copyTree(KestlyPath::appendingComponent(from, name), KestlyPath::appendingComponent(to, name))) {
            removeItem(to);
            return error;
        }
    }
    chmod(to.c_str(), status.st_mode & 07777);
    return std::nullopt;
}

constexpr std::string_view kStagingPrefix = ".kestly-staging-";

// A free name beside `path` for an item being copied, to be renamed into place once complete,
// so that a copy cut short never lies under the final name. It leaves out the item's own
// name, which may already be as long as a name can be. A name with our number may be taken
// by what a killed process of the same number left: that one is passed over.
std::string stagingSibling(const std::string& path) {
    static std::atomic<unsigned long long> counter{0};
    const std::string folder = KestlyPath::deletingLastComponent(path);
    for (;;) {
        const std::string name = std::string(kStagingPrefix) + std::to_string(getpid()) + "-" + std::to_string(counter++);
        std::string staging = KestlyPath::appendingComponent(folder, name);
        struct stat status;
        if (lstat(staging.c_str(), &status) != 0) return staging;
    }
}

// The process number of the staging name `name`, exactly as `stagingSibling` writes them.
std::optional<pid_t> stagingProcess(std::string_view name) {
    if (!name.starts_with(kStagingPrefix)) return std::nullopt;
    name.remove_prefix(kStagingPrefix.size());
    const size_t dash = name.find('-');
    // Each number in the form std::to_string gives, so every staging name has one spelling.
    const auto number = [](std::string_view digits) -> std::optional<unsigned long long> {
        unsigned long long value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || end != digits.data() + digits.size() || std::to_string(value) != digits) {
            return std::nullopt;
        }
        return value;
    };
    if (dash == std::string_view::npos || !number(name.substr(dash + 1))) return std::nullopt;
    const auto process = number(name.substr(0, dash));
    if (!process || *process == 0 || *process > static_cast<unsigned long long>(std::numeric_limits<pid_t>::max())) {
        return std::nullopt;
    }
    return static_cast<pid_t>(*process);
}

// A file's identity on this machine: two paths name one item when theirs are equal, whatever
// mounts or links lie between.
struct Identity {
    dev_t device;
    ino_t inode;
    friend bool operator==(const Identity&, const Identity&) = default;
};

Identity identityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

// The identity of the entry at `path` itself, a link not followed.
std::optional<Identity> entryIdentity(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return std::nullopt;
    return identityOf(status);
}

// Whether the folder `from` is the folder that would hold `to`, or one above it: a copy there
// would copy itself without end. Paths cannot tell, since a bind mount shows a folder under
// a second path that realpath keeps; so the identity of each folder above `to`, as the
// kernel reaches it through "..", is compared with the source's.
bool isInsideItself(const std::string& from, const std::string& to) {
    struct stat status;
    if (lstat(from.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
    const Identity source = identityOf(status);
    const std::string parent = KestlyPath::deletingLastComponent(to);
    DCIFileDescriptor folder(open(parent.empty() ? "." : parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    std::optional<Identity> below;
    while (folder && fstat(folder.get(), &status) == 0 && identityOf(status) != below) {
        if (identityOf(status) == source) return true;
        below = identityOf(status);
        folder = DCIFileDescriptor(openat(folder.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return false;
}

// Copies `from` to a staging name beside `to`, answered in `staging` once complete.
std::optional<DCIError> copyToStaging(const std::string& from, const std::string& to, std::string& staging) {
    if (isInsideItself(from, to)) {
        errno = EINVAL;
        return failure("copy " + from + " into itself at", to);
    }
    staging = stagingSibling(to);
    return copyTree(from, staging);
}

// Renames `from` to `to` unless something is there already.
bool renameWithoutReplacing(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without the flag (NFS, some FUSE): the look and the rename are two steps.
    struct stat status;
    if (lstat(to.c_str(), &status) == 0) {
        errno = EEXIST;
        return false;
    }
    return rename(from.c_str(), to.c_str()) == 0;
}

// Puts the complete copy at `staging` in place at `to`: only a move replaces what is there.
std::optional<DCIError> putInPlace(const std::string& staging, const std::string& to, bool replacing) {
    if (replacing ? rename(staging.c_str(), to.c_str()) == 0 : renameWithoutReplacing(staging, to)) return std::nullopt;
    DCIError error = failure("put " + staging + " in place at", to);
    removeItem(staging);
    return error;
}

// Whether `from` is a link to the very file at `to`: moved there, it would replace that file
// with a link to itself, and the file's contents would be gone.
bool isLinkToItem(const std::string& from, const std::string& to) {
    struct stat link, target, destination;
    return lstat(from.c_str(), &link) == 0 && S_ISLNK(link.st_mode) && stat(from.c_str(), &target) == 0 &&
           lstat(to.c_str(), &destination) == 0 && identityOf(target) == identityOf(destination);
}

// Every system call reads a path up to its first NUL: "keep.wav\0.bak" would name keep.wav.
std::optional<DCIError> refusalOfNUL(std::initializer_list<std::string_view> paths) {
    for (const std::string_view path : paths) {
        if (path.find('\0') == std::string_view::npos) continue;
        std::string shown;
        for (const char c : path) shown += c == '\0' ? std::string("\\0") : std::string(1, c);
        return DCIError::posixError(EINVAL, "refuse " + shown + ", a path holding a NUL character");
    }
    return std::nullopt;
}

}  // namespace

namespace DCIFileOperations {

std::optional<DCIError> moveItem(const std::string& from, const std::string& to) {
    if (auto refusal = refusalOfNUL({from, to})) return refusal;
    if (isLinkToItem(from, to)) {
        errno = EINVAL;
        return failure("move the link " + from + " onto its target", to);
    }
    // Two names of one item: rename(2) leaves both and succeeds. Through two mounts of one
    // folder it fails instead, and the copy put in place there would be removed as the source.
    if (const auto source = entryIdentity(from); source && source == entryIdentity(to)) return std::nullopt;
    if (rename(from.c_str(), to.c_str()) == 0) return std::nullopt;
    if (errno != EXDEV) return failure("move " + from + " to", to);
    std::string staging;
    if (auto error = copyToStaging(from, to, staging)) return error;
    if (auto error = putInPlace(staging, to, true)) return error;
    removeItem(from);
    return std::nullopt;
}

std::optional<DCIError> copyItem(const std::string& from, const std::string& to) {
    if (auto refusal = refusalOfNUL({from, to})) return refusal;
    // Refused before a long copy, and again as the copy is put in place.
    struct stat status;
    if (lstat(to.c_str(), &status) == 0) {
        errno = EEXIST;
        return failure("copy to", to);
    }
    std::string staging;
    if (auto error = copyToStaging(from, to, staging)) return error;
    return putInPlace(staging, to, false);
}

std::optional<DCIError> createDirectory(const std::string& path) {
    if (auto refusal = refusalOfNUL({path})) return refusal;
    std::string partial;
    for (const std::string& component : KestlyPath::components(path)) {
        partial = KestlyPath::appendingComponent(partial, component);
        if (mkdir(partial.c_str(), 0777) == 0 || errno == EEXIST) continue;
        return failure("create folder", partial);
    }
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return failure("create folder", path);
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        return failure("create folder", path);
    }
    return std::nullopt;
}

bool isStagingName(std::string_view name) { return stagingProcess(name).has_value(); }

bool removeAbandonedStagingItem(const std::string& folderPath, std::string_view name) {
    if (!isAbandonedStagingName(name)) return false;
    removeItem(KestlyPath::appendingComponent(folderPath, std::string(name)));
    return true;
}

bool isAbandonedStagingName(std::string_view name) {
    const auto process = stagingProcess(name);
    return process && kill(*process, 0) != 0 && errno == ESRCH;
}

}  // namespace DCIFileOperations
