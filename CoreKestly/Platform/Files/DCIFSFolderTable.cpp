#include "CoreKestly/Platform/Files/DCIFSFolderTableInternal.h"

#include "CoreKestly/Platform/Files/KestlyPath.h"

namespace {

// Every path below `path` sorts after `path` + "/" and before `path` + "0", '0' following '/':
// "/a/b 2" sorts before "/a/b/c", so the range holds nothing but what lies below. Paths have no
// trailing separator, so only the root "/" is itself at the range's start, and left out.
std::string firstBelow(const std::string& path) { return path.ends_with('/') ? path : path + "/"; }
std::string pastBelow(const std::string& path) {
    std::string end = firstBelow(path);
    end.back() = '0';
    return end;
}

}  // namespace

std::pair<DCIFSFolderTable::PathIterator, DCIFSFolderTable::PathIterator> DCIFSFolderTable::pathsBelow(
    const std::string& path) const {
    return {identityByPath_.upper_bound(firstBelow(path)), identityByPath_.lower_bound(pastBelow(path))};
}

bool DCIFSFolderTable::admits(const std::string& path, Identity identity) const {
    const auto folder = folders_.find(identity);
    if (folder == folders_.end() || folder->second.paths.contains(path)) return true;
    if (folder->second.paths.size() >= kMaximumPaths) return false;
    for (std::string above = KestlyPath::deletingLastComponent(path);;
         above = KestlyPath::deletingLastComponent(above)) {
        const auto known = identityByPath_.find(above);
        if (known == identityByPath_.end()) return true;
        if (known->second == identity) return false;
        if (above == "/") return true;
    }
}

DCIFSFolderTable::Folder& DCIFSFolderTable::add(const std::string& path, Identity identity) {
    const auto [entry, isNew] = folders_.try_emplace(identity, Folder{.identity = identity, .paths = {}});
    if (isNew) polled_.insert(identity);
    identityByPath_.emplace(path, identity);
    entry->second.paths.insert(path);
    return entry->second;
}

void DCIFSFolderTable::setWatch(Folder& folder, int watch) {
    folder.watch = watch;
    identityByWatch_[watch] = folder.identity;
    polled_.erase(folder.identity);
}

DCIFSFolderTable::Folder* DCIFSFolderTable::find(Identity identity) {
    const auto folder = folders_.find(identity);
    return folder == folders_.end() ? nullptr : &folder->second;
}

DCIFSFolderTable::Folder* DCIFSFolderTable::at(const std::string& path) {
    const auto known = identityByPath_.find(path);
    return known == identityByPath_.end() ? nullptr : find(known->second);
}

DCIFSFolderTable::Folder* DCIFSFolderTable::watchedBy(int watch) {
    const auto known = identityByWatch_.find(watch);
    return known == identityByWatch_.end() ? nullptr : find(known->second);
}

std::vector<int> DCIFSFolderTable::forgetUnder(const std::string& path) {
    std::vector<std::string> paths;
    if (identityByPath_.contains(path)) paths.push_back(path);
    for (auto [entry, last] = pathsBelow(path); entry != last; ++entry) paths.push_back(entry->first);
    std::vector<int> orphanedWatches;
    for (const std::string& gone : paths) forgetPath(gone, orphanedWatches);
    return orphanedWatches;
}

void DCIFSFolderTable::forgetPath(const std::string& path, std::vector<int>& orphanedWatches) {
    const auto byPath = identityByPath_.find(path);
    if (byPath == identityByPath_.end()) return;
    const auto folder = folders_.find(byPath->second);
    identityByPath_.erase(byPath);
    folder->second.paths.erase(path);
    if (!folder->second.paths.empty()) return;
    if (folder->second.watch >= 0) {
        orphanedWatches.push_back(folder->second.watch);
        identityByWatch_.erase(folder->second.watch);
    }
    polled_.erase(folder->first);
    folders_.erase(folder);
}

std::vector<std::string> DCIFSFolderTable::childPaths(const std::string& path) const {
    std::vector<std::string> children;
    const size_t prefixLength = firstBelow(path).size();
    for (auto [entry, last] = pathsBelow(path); entry != last;) {
        const size_t slash = entry->first.find('/', prefixLength);
        if (slash == std::string::npos) {
            children.push_back((entry++)->first);
        } else {
            // A grandchild: skip the rest of its branch.
            entry = pathsBelow(entry->first.substr(0, slash)).second;
        }
    }
    return children;
}

std::vector<std::string> DCIFSFolderTable::polledPaths() const {
    std::vector<std::string> paths;
    for (const Identity& identity : polled_) {
        const auto& folder = folders_.at(identity);
        paths.insert(paths.end(), folder.paths.begin(), folder.paths.end());
    }
    return paths;
}
