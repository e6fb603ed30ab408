#include "CoreKestly/FileSystem/DCISHACache.h"

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/FileSystem/DCISHACacheStoreInternal.h"
#include "CoreKestly/FileSystem/KSTFileHashInternal.h"
#include "CoreKestly/Platform/Values/DCIFormat.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/RunLoop/DCISerialExecutorInternal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A record whose hashing failed has no "sha" and counts as a miss, so it is tried again.
bool holdsSHA(const DCISHACacheRecord& record) { return record.sha.has_value(); }
// Every record holds a sasID, "" included, so the calculator is asked once per modification.
bool holdsSasID(const DCISHACacheRecord&) { return true; }

}  // namespace

std::shared_ptr<DCISHACache> DCISHACache::initWithCachePath(const std::string& cachePath,
                                                            DCISasIDCalculator sasIDCaclulator) {
    auto cache = std::shared_ptr<DCISHACache>(new DCISHACache(cachePath, std::move(sasIDCaclulator)));
    cache->loadCachedSHAData();
    return cache;
}

DCISHACache::DCISHACache(std::string cachePath, DCISasIDCalculator sasIDCalculator)
    : shaCachePath_(std::move(cachePath)),
      sasIDCalculator_(std::move(sasIDCalculator)),
      store_(std::make_unique<DCISHACacheStore>(shaCachePath_)),
      executor_(std::make_unique<DCISerialExecutor>("kestly.shacache")) {}

DCISHACache::~DCISHACache() {
    executor_.reset();  // finishes the writes already scheduled
    const auto changes = takeUnsavedChanges();
    if (!changes.empty()) store_->write(changes);
}

std::map<std::string, DCISHACacheRecord> DCISHACache::shaCache() const {
    std::unique_lock lock(accessMutex_);
    return {shaCache_.begin(), shaCache_.end()};
}

bool DCISHACache::dirty() const {
    std::unique_lock lock(accessMutex_);
    return !unsavedPaths_.empty();
}

DCISasIDCalculator DCISHACache::sasIDCalculator() const {
    std::lock_guard lock(calculatorMutex_);
    return sasIDCalculator_;
}

void DCISHACache::setSasIDCalculator(DCISasIDCalculator sasIDCalculator) {
    std::lock_guard lock(calculatorMutex_);
    sasIDCalculator_ = std::move(sasIDCalculator);
}

std::optional<std::string> DCISHACache::SHAForFile(const std::string& path) {
    return SHAForFile(path, false);
}

std::optional<std::string> DCISHACache::SHAForFileEco(const std::string& path) {
    return SHAForFile(path, true);
}

std::optional<std::string> DCISHACache::SHAForFile(const std::string& path, bool eco) {
    const auto record = currentRecord(path, eco, holdsSHA);
    return record ? record->sha : std::nullopt;
}

std::optional<std::string> DCISHACache::SasIDForFile(const std::string& path) {
    const auto record = currentRecord(path, false, holdsSasID);
    return record ? record->answeredSasID() : std::nullopt;
}

std::optional<DCISHACacheRecord> DCISHACache::recordForFile(const std::string& path) {
    const auto stamp = DCIFileStamp::ofFile(path);
    if (!stamp) return std::nullopt;
    return currentRecord(path, *stamp, false, holdsSHA);
}

std::optional<DCISHACacheRecord> DCISHACache::recordForFile(const std::string& path, const DCIFileStamp& stamp) {
    return currentRecord(path, stamp, false, holdsSHA);
}

std::optional<DCIFileStamp> DCIFileStamp::ofFile(const std::string& path) {
    struct stat status {};
    if (path.empty() || ::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return ofStatus(status);
}

DCIFileStamp DCIFileStamp::ofStatus(const struct stat& status) {
    return DCIFileStamp{DCIDate::dateWithSecondsSince1970(status.st_mtim.tv_sec, status.st_mtim.tv_nsec),
                        static_cast<uint64_t>(status.st_size), static_cast<uint64_t>(status.st_ino),
                        static_cast<uint64_t>(status.st_dev)};
}

std::optional<DCISHACacheRecord> DCISHACache::currentRecord(const std::string& path, bool eco, Answers answers) {
    const auto stamp = DCIFileStamp::ofFile(path);
    if (!stamp) return std::nullopt;
    return currentRecord(path, *stamp, eco, answers);
}

std::optional<DCISHACacheRecord> DCISHACache::currentRecord(const std::string& path, const DCIFileStamp& stamp, bool eco,
                                                            Answers answers) {
    {
        std::unique_lock lock(accessMutex_);
        const auto found = shaCache_.find(path);
        if (found != shaCache_.end() && found->second.stamp == stamp && answers(found->second)) {
            return found->second;
        }
    }
    if (auto renamed = recordOfRenamedFile(path, stamp, answers)) return renamed;
    // A hit needs only the stamp; a miss is about to read the file, so a file that may not be
    // read is turned away here, with no record and no log line.
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) return std::nullopt;
    // Hashing and the calculator run without the lock: a long hash holds back no one.
    return cacheFile(path, eco, stamp);
}

std::optional<DCISHACacheRecord> DCISHACache::cacheFile(const std::string& path, bool eco,
                                                        const std::optional<DCIFileStamp>& stamp) {
    if (!stamp) return std::nullopt;
    DCISHACacheRecord record{*stamp, KSTSha256ForFileAtPath(path, eco, hashingStopped_), ""};
    // A hash cut short says nothing about the file: no record, no log line.
    if (!record.sha && hashingStopped_.load()) return std::nullopt;
    if (!record.sha) DCLogError("Unable to calcualate SHA for %@", DCILoggedText(path));
    if (const auto calculator = sasIDCalculator()) record.sasID = calculator(path).value_or("");
    store(path, record);
    return record;
}

std::optional<DCIDate> DCISHACache::modificationDateForFile(const std::string& path) {
    const auto stamp = DCIFileStamp::ofFile(path);
    if (!stamp) return std::nullopt;
    return DCIDate::dateWithSecondsSince1970(stamp->mdate.secondsSince1970());
}

void DCISHACache::loadCachedSHAData() {
    std::vector<std::pair<std::string, DCISHACacheRecord>> stored;
    executor_->runAndWait([&] { stored = store_->readAllRecords(); });

    std::unique_lock lock(accessMutex_);
    shaCache_.clear();
    byIdentity_.clear();
    unsavedPaths_.clear();
    shaCache_.reserve(stored.size());
    for (auto& [path, record] : stored) {
        const auto current = DCIFileStamp::ofFile(path);
        // A record written before devices were kept takes the device of the file at its path.
        if (current && record.stamp.device == 0) {
            record.stamp.device = current->device;
            unsavedPaths_.insert(path);
        }
        if (current == record.stamp) {
            putRecord(path, std::move(record));
        } else {
            unsavedPaths_.insert(std::move(path));  // removed from the file at the next persist
        }
    }
}

void DCISHACache::store(const std::string& path, const DCISHACacheRecord& record) {
    std::unique_lock lock(accessMutex_);
    putRecord(path, record);
    unsavedPaths_.insert(path);
}

void DCISHACache::forgetFile(const std::string& path) {
    std::unique_lock lock(accessMutex_);
    if (eraseRecord(path)) unsavedPaths_.insert(path);
}

void DCISHACache::moveRecord(const std::string& from, const std::string& to) {
    std::unique_lock lock(accessMutex_);
    const auto found = shaCache_.find(from);
    if (found == shaCache_.end()) return;
    DCISHACacheRecord record = std::move(found->second);
    eraseRecord(from);
    putRecord(to, std::move(record));
    unsavedPaths_.insert(from);
    unsavedPaths_.insert(to);
}

std::optional<DCISHACacheRecord> DCISHACache::recordOfRenamedFile(const std::string& path, const DCIFileStamp& stamp,
                                                                  Answers answers) {
    std::unique_lock lock(accessMutex_);
    const auto known = byIdentity_.find({stamp.device, stamp.inode});
    if (known == byIdentity_.end()) return std::nullopt;
    const std::string otherPath = *known->second;
    const DCISHACacheRecord record = shaCache_.at(otherPath);
    if (record.stamp != stamp || !answers(record)) return std::nullopt;
    // Renamed, the file takes its record along; a hard link, still the same file under the
    // other name too, shares it.
    if (DCIFileStamp::ofFile(otherPath) != stamp) {
        eraseRecord(otherPath);
        unsavedPaths_.insert(otherPath);
    }
    putRecord(path, record);
    unsavedPaths_.insert(path);
    return record;
}

void DCISHACache::putRecord(const std::string& path, DCISHACacheRecord record) {
    auto entry = shaCache_.find(path);
    if (entry == shaCache_.end()) {
        entry = shaCache_.emplace(path, std::move(record)).first;
    } else {
        unindex(*entry);
        entry->second = std::move(record);
    }
    if (entry->second.sha) byIdentity_[{entry->second.stamp.device, entry->second.stamp.inode}] = &entry->first;
}

bool DCISHACache::eraseRecord(const std::string& path) {
    const auto found = shaCache_.find(path);
    if (found == shaCache_.end()) return false;
    unindex(*found);
    shaCache_.erase(found);
    return true;
}

void DCISHACache::unindex(const std::pair<const std::string, DCISHACacheRecord>& entry) {
    const auto indexed = byIdentity_.find({entry.second.stamp.device, entry.second.stamp.inode});
    if (indexed != byIdentity_.end() && indexed->second == &entry.first) byIdentity_.erase(indexed);
}

void DCISHACache::stopHashing() { hashingStopped_ = true; }

void DCISHACache::persist() {
    auto changes = takeUnsavedChanges();
    if (changes.empty()) return;
    executor_->submit([this, changes = std::move(changes)] {
        if (store_->write(changes)) return;
        // The in-memory records are the newest, so marking their paths unsaved again is enough
        // for the next persist to retry.
        std::unique_lock lock(accessMutex_);
        for (const auto& change : changes) unsavedPaths_.insert(change.first);
    });
}

void DCISHACache::waitUntilPersisted() {
    executor_->waitUntilIdle();
}

std::vector<std::pair<std::string, std::optional<DCISHACacheRecord>>> DCISHACache::takeUnsavedChanges() {
    std::vector<std::pair<std::string, std::optional<DCISHACacheRecord>>> changes;
    std::unique_lock lock(accessMutex_);
    changes.reserve(unsavedPaths_.size());
    for (const auto& path : unsavedPaths_) {
        const auto found = shaCache_.find(path);
        changes.emplace_back(path, found == shaCache_.end() ? std::nullopt : std::optional(found->second));
    }
    unsavedPaths_.clear();
    return changes;
}

std::string DCISHACache::description() const {
    std::unique_lock lock(accessMutex_);
    return DCIFormat("<DCISHACache: %@, %lu records>", shaCachePath_, shaCache_.size());
}
