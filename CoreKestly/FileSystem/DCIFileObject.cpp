#include "CoreKestly/FileSystem/DCIFileObject.h"

#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string pathInFolder(const std::shared_ptr<DCIFolderObject>& folder, const std::string& name) {
    return folder ? KestlyPath::appendingComponent(folder->absolutePath(), name) : std::string();
}

std::shared_ptr<const std::string> storedString(const std::optional<std::string>& value) {
    return value ? std::make_shared<const std::string>(*value) : nullptr;
}

std::optional<std::string> loadedString(const std::shared_ptr<const std::string>& value) {
    return value ? std::optional<std::string>(*value) : std::nullopt;
}

DCIDate dateFromSeconds(const std::atomic<int64_t>& seconds) {
    return DCIDate::dateWithSecondsSince1970(seconds.load(std::memory_order_relaxed));
}

}  // namespace

DCIFileObject::DCIFileObject(const std::string& name, const std::shared_ptr<DCIFolderObject>& folder)
    : name_(name), parent_(folder), absolutePath_(pathInFolder(folder, name)),
      compareHash_(DCIPathHash(absolutePath_)) {}

std::shared_ptr<DCIFileObject> DCIFileObject::initWithFileName(const std::string& name,
                                                               const std::shared_ptr<DCIFolderObject>& inFolder) {
    if (!inFolder) return nullptr;
    std::shared_ptr<DCIFileObject> file(new DCIFileObject(name, inFolder));
    return file->updateAttributes() ? file : nullptr;
}

bool DCIFileObject::updateAttributes() {
    // Only a regular file can ever be hashed: a FIFO, socket or device (or a link to one) in
    // the tree would fail every hashing pass. Such entries are never opened, since opening a
    // device can act on it; a regular file is asked about instead of opened, which costs one
    // system call less.
    struct stat status;
    if (stat(absolutePath_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (faccessat(AT_FDCWD, absolutePath_.c_str(), R_OK, AT_EACCESS) != 0) return false;
    setStatus(status);
    return true;
}

std::shared_ptr<DCIFileObject> DCIFileObject::initWithFileName(const std::string& name,
                                                               const std::shared_ptr<DCIFolderObject>& inFolder,
                                                               const struct stat& status) {
    if (!inFolder || !S_ISREG(status.st_mode)) return nullptr;
    std::shared_ptr<DCIFileObject> file(new DCIFileObject(name, inFolder));
    file->setStatus(status);
    return file;
}

void DCIFileObject::setStatus(const struct stat& status) {
    modifiedSeconds_.store(status.st_mtim.tv_sec, std::memory_order_relaxed);
    modifiedNanoseconds_.store(static_cast<int32_t>(status.st_mtim.tv_nsec), std::memory_order_relaxed);
    createdSeconds_.store(status.st_ctim.tv_sec, std::memory_order_relaxed);
    size_.store(static_cast<uint64_t>(status.st_size), std::memory_order_relaxed);
    inode_.store(static_cast<uint64_t>(status.st_ino), std::memory_order_relaxed);
    device_.store(static_cast<uint64_t>(status.st_dev), std::memory_order_relaxed);
}

DCIFileStamp DCIFileObject::stamp() const {
    return DCIFileStamp{DCIDate::dateWithSecondsSince1970(modifiedSeconds_.load(std::memory_order_relaxed),
                                                          modifiedNanoseconds_.load(std::memory_order_relaxed)),
                        size_.load(std::memory_order_relaxed), inode_.load(std::memory_order_relaxed),
                        device_.load(std::memory_order_relaxed)};
}

DCIDate DCIFileObject::modifiedDate() const { return dateFromSeconds(modifiedSeconds_); }

DCIDate DCIFileObject::createdDate() const { return dateFromSeconds(createdSeconds_); }

std::string DCIFileObject::relativePath() const {
    const auto folder = parent();
    return folder ? KestlyPath::appendingComponent(folder->relativePath(), name_) : name_;
}

std::optional<std::string> DCIFileObject::pathRelativeToFolder(const std::shared_ptr<DCIFolderObject>& folder) const {
    const auto parentFolder = parent();
    if (!parentFolder) return std::nullopt;
    const auto folderPath = parentFolder->pathRelativeToFolder(folder);
    if (!folderPath) return std::nullopt;
    return KestlyPath::appendingComponent(*folderPath, name_);
}

std::optional<std::string> DCIFileObject::fileHash() const {
    if (auto stored = fileHash_.load()) return *stored;
    // Two threads may both get here and hash the file; both store the same value.
    auto computed = KSTSha256ForFileAtPath(absolutePath_);
    if (computed) fileHash_.store(storedString(computed));
    return computed;
}

void DCIFileObject::setFileHash(const std::optional<std::string>& fileHash) { fileHash_.store(storedString(fileHash)); }

std::optional<std::string> DCIFileObject::sasID() const { return loadedString(sasID_.load()); }

void DCIFileObject::setSasID(const std::optional<std::string>& sasID) { sasID_.store(storedString(sasID)); }

bool DCIFileObject::isEqual(const DCIObject& other) const {
    const auto* file = dynamic_cast<const DCIFileObject*>(&other);
    return file && file->hash() == hash();
}
