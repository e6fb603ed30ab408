#include "CoreKestly/FileSystem/DCICachedFileQueries.h"

#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/Platform/KestlyPath.h"

#include <algorithm>

namespace {

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

std::vector<std::string> lowercased(std::vector<std::string> names) {
    for (auto& name : names) name = lowercased(std::move(name));
    return names;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

DCICachedFileQueries::DCICachedFileQueries(const DCIFileKinds& kinds, std::shared_ptr<DCISHACache> primaryFileCache,
                                           std::shared_ptr<DCISHACache> sampleCache)
    : kinds_{lowercased(kinds.primaryExtensions), lowercased(kinds.primaryFilenames),
             lowercased(kinds.secondaryExtensions)},
      primaryFileCache_(std::move(primaryFileCache)), sampleCache_(std::move(sampleCache)) {}

bool DCICachedFileQueries::isPrimaryFile(const std::string& path) const {
    return contains(kinds_.primaryExtensions, lowercased(KestlyPath::extension(path))) ||
           contains(kinds_.primaryFilenames, lowercased(KestlyPath::lastComponent(path)));
}

bool DCICachedFileQueries::isSecondaryFile(const std::string& path) const {
    return contains(kinds_.secondaryExtensions, lowercased(KestlyPath::extension(path)));
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
    auto* cache = cacheForFile(path);
    const auto record = cache ? cache->recordForFile(path) : std::nullopt;
    if (!record || !record->sha) return {};
    return {record->sha, record->answeredSasID()};
}
