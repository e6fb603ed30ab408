#include "CoreKestly/Platform/DCIFileOperations.h"

#include "CoreKestly/Platform/DCIFileDescriptor.h"
#include "CoreKestly/Platform/KestlyPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
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

// A name beside `path` that nothing else uses, for an item being put in place. It leaves out
// the item's own name, which may already be as long as a name can be.
std::string temporarySibling(const std::string& path) {
    static std::atomic<unsigned> counter{0};
    return KestlyPath::appendingComponent(KestlyPath::deletingLastComponent(path),
                                          ".kestly-move-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
}

// Whether `from` is a link to the very file at `to`: moved there, it would replace that file
// with a link to itself, and the file's contents would be gone.
bool isLinkToItem(const std::string& from, const std::string& to) {
    struct stat link, target, destination;
    return lstat(from.c_str(), &link) == 0 && S_ISLNK(link.st_mode) && stat(from.c_str(), &target) == 0 &&
           lstat(to.c_str(), &destination) == 0 && target.st_dev == destination.st_dev &&
           target.st_ino == destination.st_ino;
}

// Whether `to` would lie inside the folder `from`: a copy there would copy itself without end.
bool isInsideItself(const std::string& from, const std::string& to) {
    char* source = realpath(from.c_str(), nullptr);
    char* destinationFolder = realpath(KestlyPath::deletingLastComponent(to).c_str(), nullptr);
    const bool inside = source && destinationFolder &&
                        KestlyPath::isSameOrBelow(
                            KestlyPath::appendingComponent(destinationFolder, KestlyPath::lastComponent(to)), source);
    std::free(source);
    std::free(destinationFolder);
    return inside;
}

}  // namespace

namespace DCIFileOperations {

std::optional<DCIError> moveItem(const std::string& from, const std::string& to) {
    if (isLinkToItem(from, to)) {
        errno = EINVAL;
        return failure("move the link " + from + " onto its target", to);
    }
    if (rename(from.c_str(), to.c_str()) == 0) return std::nullopt;
    if (errno != EXDEV) return failure("move " + from + " to", to);
    const std::string staging = temporarySibling(to);
    if (auto error = copyItem(from, staging)) return error;
    if (rename(staging.c_str(), to.c_str()) != 0) {
        DCIError error = failure("move " + staging + " to", to);
        removeItem(staging);
        return error;
    }
    removeItem(from);
    return std::nullopt;
}

std::optional<DCIError> copyItem(const std::string& from, const std::string& to) {
    struct stat status;
    if (lstat(to.c_str(), &status) == 0) {
        errno = EEXIST;
        return failure("copy to", to);
    }
    if (isInsideItself(from, to)) {
        errno = EINVAL;
        return failure("copy " + from + " into itself at", to);
    }
    return copyTree(from, to);
}

std::optional<DCIError> createDirectory(const std::string& path) {
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

}  // namespace DCIFileOperations
