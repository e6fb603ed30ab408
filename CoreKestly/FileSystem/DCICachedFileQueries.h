#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/FileSystem/DCIFileQueries.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

class DCISHACache;

/// The names that make a file primary or secondary. Extensions are given without their dot;
/// all comparisons ignore ASCII case.
struct DCIFileKinds {
    std::vector<std::string> primaryExtensions;
    std::vector<std::string> primaryFilenames;
    std::vector<std::string> secondaryExtensions;
};

/// Answers the tree's queries from fixed lists of names and two SHA caches, the way the file
/// manager does: primary files (by extension or whole name) through the primary cache,
/// secondary files (by extension) through the secondary one. For a tree built without a file
/// manager: tests, tools, benchmarks. The lists never change after creation, so any number
/// of threads may ask at once.
class KESTLY_EXPORT DCICachedFileQueries : public DCIFileQueries {
public:
    /// Either cache may be null: the files it would serve then get no hash and no `sasID`.
    DCICachedFileQueries(const DCIFileKinds& kinds, std::shared_ptr<DCISHACache> primaryFileCache,
                         std::shared_ptr<DCISHACache> sampleCache);

    /// The lists, lower-cased, each name once.
    const DCIFileKinds& kinds() const { return kinds_; }
    bool isPrimaryFile(const std::string& path) const;
    bool isSecondaryFile(const std::string& path) const;

    bool isFileOfInterest(const std::string& path) override;
    /// Nothing for a file of no interest, which no cache serves.
    std::optional<std::string> SHAForFileAtPath(const std::string& path) override;
    std::optional<std::string> SasIDForFileAtPath(const std::string& path) override;
    /// Both answers from the one record the cache validates for the hash.
    DCIFileIdentifiers identifiersForFileAtPath(const std::string& path) override;
    DCIFileIdentifiers identifiersForFile(const std::string& path, const DCIFileStamp& stamp) override;

    /// Drops the cache record of a file that left the tree.
    void forgetFile(const std::string& path);
    /// Moves the cache record of a file renamed from `from` to `to`, which keeps its hash
    /// when both names are served by one cache; else the record is dropped.
    void fileMoved(const std::string& from, const std::string& to);
    /// Stops the hashing of both caches: see `DCISHACache::stopHashing`.
    void stopHashing();

private:
    // The cache serving the file at `path`, the primary one first; null for a file of no interest.
    DCISHACache* cacheForFile(const std::string& path) const;

    const DCIFileKinds kinds_;  // lower-cased
    const std::shared_ptr<DCISHACache> primaryFileCache_;
    const std::shared_ptr<DCISHACache> sampleCache_;
};
