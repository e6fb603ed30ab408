#include "CoreKestly/FileSystem/DCISHACache.h"

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/FileSystem/DCISHACacheStoreInternal.h"
#include "CoreKestly/FileSystem/KSTFileHashInternal.h"
#include "CoreKestly/Platform/Values/DCIFormat.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/RunLoop/DCISerialExecutorInternal.h"

#include <sys/stat.h>

namespace {

// A record whose hashing failed has no "sha" and counts as a miss where a hash is asked for,
// so it is tried again. Every record holds a sasID, "" included, so the calculator is asked
// once per modification.
constexpr bool kNeedsSHA = true;
constexpr bool kNeedsSasID = false;

// The most changes one write takes: a first scan's hundred thousand new records are written
// in batches rather than copied all at once.
constexpr size_t kMostChangesPerWrite = 4096;

// A path split after its last "/": the key of its folder and its name.
std::pair<std::string_view, std::string_view> folderAndName(std::string_view path) {
    const size_t nameStart = path.rfind('/') + 1;  // 0 without a "/"
    return {path.substr(0, nameStart), path.substr(nameStart)};
}

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
    writeUnsavedChanges();
}

std::map<std::string, DCISHACacheRecord> DCISHACache::shaCache() const {
    std::map<std::string, DCISHACacheRecord> records;
    std::unique_lock lock(accessMutex_);
    for (const auto& [key, folder] : folders_) {
        for (const auto& entry : folder.records) records.emplace(pathOf(entry), answered(entry.second));
    }
    return records;
}

bool DCISHACache::dirty() const {
    std::unique_lock lock(accessMutex_);
    return (unsavedCount_ > 0 || !droppedPaths_.empty()) && !writeScheduled_;
}

DCISHACache::StoredRecord DCISHACache::stored(const DCISHACacheRecord& record) {
    StoredRecord stored;
    stored.modifiedSeconds = record.stamp.mdate.secondsSince1970();
    stored.modifiedNanoseconds = static_cast<uint32_t>(record.stamp.mdate.nanoseconds());
    stored.size = record.stamp.size;
    stored.inode = record.stamp.inode;
    stored.device = record.stamp.device;
    // A hash that is no SHA-256 (a damaged row) counts as none: the file is hashed again.
    const auto digest = record.sha ? KSTDigestFromHex(*record.sha) : std::nullopt;
    stored.hasSHA = digest.has_value();
    stored.sha = digest.value_or(KSTSha256Digest{});
    if (!record.sasID.empty()) stored.sasID = std::make_unique<const std::string>(record.sasID);
    return stored;
}

DCISHACacheRecord DCISHACache::answered(const StoredRecord& record) {
    const DCIFileStamp stamp{DCIDate::dateWithSecondsSince1970(record.modifiedSeconds,
                                                               static_cast<int32_t>(record.modifiedNanoseconds)),
                             record.size, record.inode, record.device};
    return {stamp, record.hasSHA ? std::optional(KSTHexFromDigest(record.sha)) : std::nullopt,
            record.sasID ? *record.sasID : std::string()};
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
    const auto record = currentRecord(path, eco, kNeedsSHA);
    return record ? record->sha : std::nullopt;
}

std::optional<std::string> DCISHACache::SasIDForFile(const std::string& path) {
    const auto record = currentRecord(path, false, kNeedsSasID);
    return record ? record->answeredSasID() : std::nullopt;
}

std::optional<DCISHACacheRecord> DCISHACache::recordForFile(const std::string& path) {
    const auto stamp = DCIFileStamp::ofFile(path);
    if (!stamp) return std::nullopt;
    return currentRecord(path, *stamp, false, kNeedsSHA);
}

std::optional<DCISHACacheRecord> DCISHACache::recordForFile(const std::string& path, const DCIFileStamp& stamp) {
    return currentRecord(path, stamp, false, kNeedsSHA);
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

std::optional<DCISHACacheRecord> DCISHACache::currentRecord(const std::string& path, bool eco, bool needsSHA) {
    const auto stamp = DCIFileStamp::ofFile(path);
    if (!stamp) return std::nullopt;
    return currentRecord(path, *stamp, eco, needsSHA);
}

std::optional<DCISHACacheRecord> DCISHACache::currentRecord(const std::string& path, const DCIFileStamp& stamp, bool eco,
                                                            bool needsSHA) {
    if (auto known = knownRecord(path, stamp, needsSHA)) return known;
    // A hit needs only the stamp; a miss reads the file, and one that may not be read is
    // turned away with no record and no log line. Hashing and the calculator run without the
    // lock: a long hash holds back no one.
    return hashAndStore(path, eco, stamp, true);
}

std::optional<DCISHACacheRecord> DCISHACache::cacheFile(const std::string& path, bool eco,
                                                        const std::optional<DCIFileStamp>& stamp) {
    if (!stamp) return std::nullopt;
    return hashAndStore(path, eco, *stamp, false);
}

std::optional<DCISHACacheRecord> DCISHACache::hashAndStore(const std::string& path, bool eco, const DCIFileStamp& stamp,
                                                           bool refuseUnreadable) {
    auto hashed = KSTSha256OfFileAtPath(path, eco, hashingStopped_);
    if (!hashed.opened && refuseUnreadable) return std::nullopt;
    // A hash cut short says nothing about the file: no record, no log line.
    if (!hashed.sha && hashingStopped_.load()) return std::nullopt;
    if (!hashed.sha) DCLogError("Unable to calcualate SHA for %@", DCILoggedText(path));
    DCISHACacheRecord record{stamp, std::move(hashed.sha), ""};
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
    const auto forgetAll = [this] {
        std::unique_lock lock(accessMutex_);
        folders_.clear();
        byIdentity_.clear();
        unsavedCount_ = 0;
        droppedPaths_.clear();
    };
    bool complete = true;
    // On the executor, after the writes scheduled so far, which take their records from memory.
    executor_->runAndWait([&] {
        forgetAll();
        complete = store_->readAllRecords([&](std::string path, DCISHACacheRecord record) {
            const auto current = DCIFileStamp::ofFile(path);
            // A record written before devices were kept takes the device of the file at its path.
            const bool deviceAdded = current && record.stamp.device == 0;
            if (deviceAdded) record.stamp.device = current->device;
            std::unique_lock lock(accessMutex_);
            if (current == record.stamp) {
                putRecord(path, stored(record), deviceAdded);
            } else {
                droppedPaths_.insert(std::move(path));  // removed from the file at the next write
            }
        });
        if (!complete) forgetAll();
    });
}

void DCISHACache::store(const std::string& path, const DCISHACacheRecord& record) {
    auto compact = stored(record);
    std::unique_lock lock(accessMutex_);
    putRecord(path, std::move(compact), true);
}

void DCISHACache::forgetFile(const std::string& path) {
    std::unique_lock lock(accessMutex_);
    eraseRecord(path, true);
}

void DCISHACache::moveRecord(const std::string& from, const std::string& to) {
    std::unique_lock lock(accessMutex_);
    Entry* found = findEntry(from);
    if (!found) return;
    StoredRecord record = std::move(found->second);
    eraseRecord(from, true);
    putRecord(to, std::move(record), true);
}

bool DCISHACache::answersFor(const StoredRecord& record, const DCIFileStamp& stamp, bool needsSHA) {
    return (record.hasSHA || !needsSHA) && record.size == stamp.size && record.inode == stamp.inode &&
           record.device == stamp.device && record.modifiedSeconds == stamp.mdate.secondsSince1970() &&
           record.modifiedNanoseconds == static_cast<uint32_t>(stamp.mdate.nanoseconds());
}

std::optional<DCISHACacheRecord> DCISHACache::knownRecord(const std::string& path, const DCIFileStamp& stamp,
                                                          bool needsSHA) {
    std::unique_lock lock(accessMutex_);
    if (const Entry* found = findEntry(path); found && answersFor(found->second, stamp, needsSHA)) {
        return answered(found->second);
    }
    const auto known = byIdentity_.find(DCIFileIdentity{stamp.device, stamp.inode});
    if (known == byIdentity_.end() || !answersFor((*known)->second, stamp, needsSHA)) return std::nullopt;
    const DCISHACacheRecord record = answered((*known)->second);
    // Renamed, the file takes its record along; a hard link, still the same file under the
    // other name too, shares it.
    const std::string otherPath = pathOf(**known);
    if (DCIFileStamp::ofFile(otherPath) != stamp) eraseRecord(otherPath, true);
    putRecord(path, stored(record), true);
    return record;
}

DCISHACache::Entry* DCISHACache::findEntry(std::string_view path) {
    const auto [folderKey, name] = folderAndName(path);
    const auto folder = folders_.find(folderKey);
    if (folder == folders_.end()) return nullptr;
    const auto entry = folder->second.records.find(name);
    return entry == folder->second.records.end() ? nullptr : &*entry;
}

void DCISHACache::putRecord(const std::string& path, StoredRecord record, bool unsaved) {
    const auto [folderKey, name] = folderAndName(path);
    auto folder = folders_.find(folderKey);
    if (folder == folders_.end()) folder = folders_.emplace(std::string(folderKey), Folder()).first;
    record.folder = &*folder;
    record.unsaved = false;
    RecordsByName& records = folder->second.records;
    auto entry = records.find(name);
    if (entry == records.end()) {
        entry = records.emplace(std::string(name), std::move(record)).first;
    } else {
        unindex(*entry);
        record.unsaved = entry->second.unsaved;
        entry->second = std::move(record);
    }
    index(*entry);
    if (unsaved) markUnsaved(*entry);
}

bool DCISHACache::eraseRecord(const std::string& path, bool unsaved) {
    const auto [folderKey, name] = folderAndName(path);
    const auto folder = folders_.find(folderKey);
    if (folder == folders_.end()) return false;
    RecordsByName& records = folder->second.records;
    const auto entry = records.find(name);
    if (entry == records.end()) return false;
    unindex(*entry);
    if (entry->second.unsaved) {
        --unsavedCount_;
        --folder->second.unsaved;
    }
    records.erase(entry);
    if (records.empty()) folders_.erase(folder);
    if (unsaved) droppedPaths_.insert(path);
    return true;
}

void DCISHACache::markUnsaved(Entry& entry) {
    if (entry.second.unsaved) return;
    entry.second.unsaved = true;
    ++entry.second.folder->second.unsaved;
    ++unsavedCount_;
}

void DCISHACache::index(Entry& entry) {
    if (!entry.second.hasSHA) return;
    // The record stored last answers for the file.
    if (const auto indexed = byIdentity_.find(&entry); indexed != byIdentity_.end()) byIdentity_.erase(indexed);
    byIdentity_.insert(&entry);
}

void DCISHACache::unindex(const Entry& entry) {
    const auto indexed = byIdentity_.find(&entry);
    if (indexed != byIdentity_.end() && *indexed == &entry) byIdentity_.erase(indexed);
}

void DCISHACache::stopHashing() { hashingStopped_ = true; }

void DCISHACache::persist() {
    {
        std::unique_lock lock(accessMutex_);
        if ((unsavedCount_ == 0 && droppedPaths_.empty()) || writeScheduled_) return;
        writeScheduled_ = true;
    }
    executor_->submit([this] { writeUnsavedChanges(); });
}

void DCISHACache::waitUntilPersisted() {
    executor_->waitUntilIdle();
}

void DCISHACache::writeUnsavedChanges() {
    for (;;) {
        const auto changes = takeUnsavedChanges(kMostChangesPerWrite);
        if (changes.empty()) return;
        if (store_->write(changes)) continue;
        // The in-memory records are the newest, so marking their paths unsaved again is enough
        // for the next persist to retry.
        std::unique_lock lock(accessMutex_);
        for (const auto& change : changes) {
            if (Entry* entry = findEntry(change.first)) markUnsaved(*entry);
            else droppedPaths_.insert(change.first);
        }
        writeScheduled_ = false;
        return;
    }
}

std::vector<DCISHACache::Change> DCISHACache::takeUnsavedChanges(size_t most) {
    std::vector<Change> changes;
    std::unique_lock lock(accessMutex_);
    // Deletions first: a path dropped and then stored again is written after its deletion.
    while (!droppedPaths_.empty() && changes.size() < most) {
        changes.emplace_back(std::move(droppedPaths_.extract(droppedPaths_.begin()).value()), std::nullopt);
    }
    for (auto folder = folders_.begin(); folder != folders_.end() && unsavedCount_ > 0 && changes.size() < most; ++folder) {
        RecordsByName& records = folder->second.records;
        for (auto entry = records.begin(); entry != records.end() && folder->second.unsaved > 0 && changes.size() < most; ++entry) {
            if (!entry->second.unsaved) continue;
            entry->second.unsaved = false;
            --folder->second.unsaved;
            --unsavedCount_;
            changes.emplace_back(pathOf(*entry), answered(entry->second));
        }
    }
    if (changes.empty()) writeScheduled_ = false;
    return changes;
}

std::string DCISHACache::description() const {
    std::unique_lock lock(accessMutex_);
    size_t records = 0;
    for (const auto& [key, folder] : folders_) records += folder.records.size();
    return DCIFormat("<DCISHACache: %@, %lu records>", shaCachePath_, records);
}
