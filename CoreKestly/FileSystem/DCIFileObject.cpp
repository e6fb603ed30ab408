#include "CoreKestly/FileSystem/DCIFileObject.h"

#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <array>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

DCIFileObject::DCIFileObject(MakeKey, const std::string& name, const std::shared_ptr<DCIFolderObject>& folder)
    : name_(name), parent_(folder), folderPath_(folder->absolutePath_),
      compareHash_(DCIPathHash(KestlyPath::appendingComponent(*folderPath_, name_))) {}

std::shared_ptr<DCIFileObject> DCIFileObject::make(const std::string& name, const std::shared_ptr<DCIFolderObject>& folder) {
    static_assert(sizeof(DCIFileObject) <= 168, "a file object and its count fit the next smaller block of memory");
    return std::make_shared<DCIFileObject>(MakeKey(), name, folder);
}

std::shared_ptr<DCIFileObject> DCIFileObject::initWithFileName(const std::string& name,
                                                               const std::shared_ptr<DCIFolderObject>& inFolder) {
    if (!inFolder) return nullptr;
    auto file = make(name, inFolder);
    return file->updateAttributes() ? file : nullptr;
}

bool DCIFileObject::updateAttributes() {
    // Only a regular file can ever be hashed: a FIFO, socket or device (or a link to one) in
    // the tree would fail every hashing pass. Such entries are never opened, since opening a
    // device can act on it; a regular file is asked about instead of opened, which costs one
    // system call less.
    const std::string path = absolutePath();
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) return false;
    setStatus(status);
    return true;
}

std::shared_ptr<DCIFileObject> DCIFileObject::initWithFileName(const std::string& name,
                                                               const std::shared_ptr<DCIFolderObject>& inFolder,
                                                               const struct stat& status) {
    if (!inFolder || !S_ISREG(status.st_mode)) return nullptr;
    auto file = make(name, inFolder);
    file->setStatus(status);
    return file;
}

std::mutex& DCIFileObject::lock() const {
    // Enough locks that threads hashing different files seldom meet on one.
    static std::array<std::mutex, 64> locks;
    return locks[std::hash<const void*>()(this) / alignof(DCIFileObject) % locks.size()];
}

void DCIFileObject::setStatus(const struct stat& status) {
    std::lock_guard guard(lock());
    state_ = Status{status.st_mtim.tv_sec, status.st_ctim.tv_sec, static_cast<uint64_t>(status.st_size),
                    static_cast<uint64_t>(status.st_ino), static_cast<uint64_t>(status.st_dev),
                    static_cast<uint32_t>(status.st_mtim.tv_nsec), state_.hasFileHash};
}

DCIFileObject::Status DCIFileObject::status() const {
    std::lock_guard guard(lock());
    return state_;
}

DCIFileStamp DCIFileObject::stamp() const {
    const Status current = status();
    return DCIFileStamp{DCIDate::dateWithSecondsSince1970(current.modifiedSeconds,
                                                          static_cast<int32_t>(current.modifiedNanoseconds)),
                        current.size, current.inode, current.device};
}

DCIDate DCIFileObject::modifiedDate() const { return DCIDate::dateWithSecondsSince1970(status().modifiedSeconds); }

DCIDate DCIFileObject::createdDate() const { return DCIDate::dateWithSecondsSince1970(status().createdSeconds); }

std::string DCIFileObject::absolutePath() const { return KestlyPath::appendingComponent(*folderPath_, name_); }

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
    {
        std::lock_guard guard(lock());
        if (state_.hasFileHash) return KSTHexFromDigest(fileHash_);
    }
    // Two threads may both get here and hash the file; both store the same value.
    auto computed = KSTSha256ForFileAtPath(absolutePath());
    if (computed) storeHash(KSTDigestFromHex(*computed));
    return computed;
}

void DCIFileObject::setFileHash(const std::optional<std::string>& fileHash) {
    storeHash(fileHash ? KSTDigestFromHex(*fileHash) : std::nullopt);
}

void DCIFileObject::storeHash(const std::optional<KSTSha256Digest>& digest) const {
    std::lock_guard guard(lock());
    state_.hasFileHash = digest.has_value();
    fileHash_ = digest.value_or(KSTSha256Digest{});
}

std::optional<std::string> DCIFileObject::sasID() const {
    std::lock_guard guard(lock());
    return sasID_ ? std::optional<std::string>(*sasID_) : std::nullopt;
}

void DCIFileObject::setSasID(const std::optional<std::string>& sasID) {
    auto stored = sasID ? std::make_unique<const std::string>(*sasID) : nullptr;
    std::lock_guard guard(lock());
    sasID_.swap(stored);
}

bool DCIFileObject::isEqual(const DCIObject& other) const {
    const auto* file = dynamic_cast<const DCIFileObject*>(&other);
    return file && file->hash() == hash();
}
