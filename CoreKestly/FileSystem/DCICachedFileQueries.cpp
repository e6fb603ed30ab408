#include "CoreKestly/FileSystem/DCICachedFileQueries.h"

#include "CoreKestly/FileSystem/DCISHACache.h"

#include <algorithm>
#include <string_view>

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

// Lower-cased, each name once, in the order first given.
std::vector<std::string> lowercased(const std::vector<std::string>& names) {
    std::vector<std::string> lowered;
    for (const auto& name : names) {
        std::string lower = lowercased(name);
        if (std::find(lowered.begin(), lowered.end(), lower) == lowered.end()) lowered.push_back(std::move(lower));
    }
    return lowered;
}

// Whether `names` (lower case) holds `name` in any ASCII case. Asked for every entry of every
// scan, so it compares in place rather than making a lower-case copy.
bool contains(const std::vector<std::string>& names, std::string_view name) {
    return std::any_of(names.begin(), names.end(), [&](const std::string& candidate) {
        return std::equal(candidate.begin(), candidate.end(), name.begin(), name.end(), [](char lower, char c) {
            return lower == (c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
        });
    });
}

// The last component of a standardised path, and its extension as `KestlyPath::extension`
// finds it, as views into the path.
std::string_view lastComponent(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view extension(std::string_view path) {
    const std::string_view name = lastComponent(path);
    const size_t dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

}  // namespace

DCICachedFileQueries::DCICachedFileQueries(const DCIFileKinds& kinds, std::shared_ptr<DCISHACache> primaryFileCache,
                                           std::shared_ptr<DCISHACache> sampleCache)
    : kinds_{lowercased(kinds.primaryExtensions), lowercased(kinds.primaryFilenames),
             lowercased(kinds.secondaryExtensions)},
      primaryFileCache_(std::move(primaryFileCache)), sampleCache_(std::move(sampleCache)) {}

bool DCICachedFileQueries::isPrimaryFile(const std::string& path) const {
    return contains(kinds_.primaryExtensions, extension(path)) || contains(kinds_.primaryFilenames, lastComponent(path));
}

bool DCICachedFileQueries::isSecondaryFile(const std::string& path) const {
    return contains(kinds_.secondaryExtensions, extension(path));
}

bool DCICachedFileQueries::isFileOfInterest(const std::string& path) {
    return isPrimaryFile(path) || isSecondaryFile(path);
}

DCISHACache* DCICachedFileQueries::cacheForFile(const std::string& path) const {
    if (isPrimaryFile(path)) return primaryFileCache_.get();
    if (isSecondaryFile(path)) return sampleCache_.get();
    return nullptr;
}

std::optional<std::string> DCICachedFileQueries::SHAForFileAtPath(const std::string& path) {
    auto* cache = cacheForFile(path);
    return cache ? cache->SHAForFile(path) : std::nullopt;
}

std::optional<std::string> DCICachedFileQueries::SasIDForFileAtPath(const std::string& path) {
    auto* cache = cacheForFile(path);
    return cache ? cache->SasIDForFile(path) : std::nullopt;
}

DCIFileIdentifiers DCICachedFileQueries::identifiersForFileAtPath(const std::string& path) {
    const auto stamp = DCIFileStamp::ofFile(path);
    return stamp ? identifiersForFile(path, *stamp) : DCIFileIdentifiers{};
}

DCIFileIdentifiers DCICachedFileQueries::identifiersForFile(const std::string& path, const DCIFileStamp& stamp) {
    auto* cache = cacheForFile(path);
    const auto record = cache ? cache->recordForFile(path, stamp) : std::nullopt;
    if (!record || !record->sha) return {};
    return {record->sha, record->answeredSasID()};
}

void DCICachedFileQueries::forgetFile(const std::string& path) {
    if (auto* cache = cacheForFile(path)) cache->forgetFile(path);
}

void DCICachedFileQueries::fileMoved(const std::string& from, const std::string& to) {
    auto* cache = cacheForFile(from);
    if (!cache) return;
    if (cache == cacheForFile(to)) cache->moveRecord(from, to);
    else cache->forgetFile(from);
}

void DCICachedFileQueries::stopHashing() {
    if (primaryFileCache_) primaryFileCache_->stopHashing();
    if (sampleCache_) sampleCache_->stopHashing();
}
