// Change detection: a fresh scan of the root compared with the tree held so far, told to the
// host as added, removed, moved and modified files and folders.
//
// Sets are walked in path order, so that a pass over a given pair of trees always posts the
// same events in the same order, ambiguous pairings included.

#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/KestlyPath.h"

#include <algorithm>
#include <unordered_map>

namespace {

template <class Set>
std::vector<typename Set::value_type> inPathOrder(const Set& set) {
    std::vector<typename Set::value_type> members(set.begin(), set.end());
    std::sort(members.begin(), members.end(),
              [](const auto& a, const auto& b) { return a->absolutePath() < b->absolutePath(); });
    return members;
}

void post(DCIEventType type, DCIDictionary context) {
    auto event = DCIEvent::commonEventWithType(type);
    event->setContext(std::move(context));
    DCIEventManager::postEvent(std::move(event));
}

}  // namespace

void DCIFileManager::lookForChanges() {
    const auto oldRoot = rootFolder();
    if (!oldRoot) return;
    const DCIFolderSet oldFolders = oldRoot->gatherFolders();
    DCIFileSet oldFiles = oldRoot->gatherFiles();

    std::shared_ptr<DCIFolderObject> newRoot;
    {
        std::lock_guard lock(treeLock_);
        newRoot = buildTree(oldRoot->absolutePath());
        // A root that is gone, or a file that cannot be read now, leaves the old tree in place.
        if (!newRoot || !newRoot->generateHashes()) return;
        rootFolder_.store(newRoot);
    }
    const DCIFolderSet newFolders = newRoot->gatherFolders();
    DCIFileSet newFiles = newRoot->gatherFiles();

    DCIFolderSet removedFolders = folderSetFromSet(oldFolders, newFolders);
    const DCIFolderSet addedFolders = folderSetFromSet(newFolders, oldFolders);

    // A removed folder moved where an added one holds a file with the hash of one of its own.
    std::unordered_map<std::string, std::shared_ptr<DCIFolderObject>> folderByHash;
    std::unordered_map<std::string, std::shared_ptr<DCIFileObject>> oldFileByHash;
    for (const auto& folder : inPathOrder(removedFolders)) {
        for (const auto& file : inPathOrder(folder->gatherFiles())) {
            if (const auto hash = file->fileHash()) {
                folderByHash[*hash] = folder;
                oldFileByHash[*hash] = file;
            }
        }
    }
    for (const auto& added : inPathOrder(addedFolders)) {
        const DCIFileSet files = added->gatherFiles();
        bool matched = false;
        for (const auto& file : inPathOrder(files)) {
            const auto hash = file->fileHash();
            const auto removed = hash ? folderByHash.find(*hash) : folderByHash.end();
            if (removed == folderByHash.end()) continue;
            newFiles.erase(file);
            oldFiles.erase(oldFileByHash[*hash]);
            if (matched) continue;
            matched = true;
            removedFolders.erase(removed->second);
            post(DCIEventTypeFolderMoved, {{std::string(kDCIFolderObject), added},
                                           {std::string(kDCIOldFolderObject), removed->second}});
        }
        if (matched) continue;
        for (const auto& file : files) newFiles.erase(file);
        post(DCIEventTypeFolderAdded, {{std::string(kDCIFolderObject), added}});
    }
    for (const auto& removed : inPathOrder(removedFolders)) {
        for (const auto& file : removed->gatherFiles()) oldFiles.erase(file);
        post(DCIEventTypeFolderRemoved, {{std::string(kDCIOldFolderObject), removed}});
    }

    // Files at one path in both scans are judged by content alone; the others are paired by
    // hash. Only the few files left on either side are copied.
    DCIFileSet oldOnly;
    DCIFileSet newOnly;
    for (const auto& file : oldFiles) {
        if (!newFiles.contains(file)) oldOnly.insert(file);
    }
    for (const auto& file : newFiles) {
        if (!oldFiles.contains(file)) newOnly.insert(file);
    }
    compareNewFileSet(newOnly, oldOnly);
    findModifiedFilesInNewSet(newFiles, oldFiles);
}

DCIFolderSet DCIFileManager::folderSetFromSet(const DCIFolderSet& set, const DCIFolderSet& notInSet) {
    DCIFolderSet topmost;
    for (const auto& folder : set) {
        if (notInSet.contains(folder)) continue;
        // A missing folder whose parent is missing too is stood for by that parent.
        const auto parent = folder->parent();
        if (!parent || !parent->parent() || notInSet.contains(parent)) topmost.insert(folder);
    }
    return topmost;
}

void DCIFileManager::compareNewFileSet(const DCIFileSet& newFiles, DCIFileSet& oldFiles) {
    const auto oldInOrder = inPathOrder(oldFiles);
    std::unordered_map<std::string, std::shared_ptr<DCIFileObject>> oldFileByHash;
    for (const auto& file : oldInOrder) {
        if (const auto hash = file->fileHash()) oldFileByHash[*hash] = file;
    }
    for (const auto& file : inPathOrder(newFiles)) {
        const auto hash = file->fileHash();
        const auto old = hash ? oldFileByHash.find(*hash) : oldFileByHash.end();
        if (old == oldFileByHash.end()) {
            post(DCIEventTypeFileAdded, {{std::string(kDCIFileObject), file}});
            continue;
        }
        // The table keeps the match, so each copy of a moved file is told as moved from it.
        post(DCIEventTypeFileMoved, {{std::string(kDCIFileObject), file}, {std::string(kDCIOldFileObject), old->second}});
        oldFiles.erase(old->second);
    }
    for (const auto& file : oldInOrder) {
        if (oldFiles.contains(file)) post(DCIEventTypeFileRemoved, {{std::string(kDCIOldFileObject), file}});
    }
}

void DCIFileManager::findModifiedFilesInNewSet(const DCIFileSet& newFiles, const DCIFileSet& oldFiles) {
    DCIFileSet modified;
    for (const auto& old : oldFiles) {
        const auto current = newFiles.find(old);
        if (current == newFiles.end()) continue;
        const auto hash = (*current)->fileHash();
        if (hash && hash != old->fileHash()) modified.insert(*current);
    }
    for (const auto& file : inPathOrder(modified)) post(DCIEventTypeFileModified, {{std::string(kDCIFileObject), file}});
}

std::shared_ptr<DCIFolderObject> DCIFileManager::folderWithPath(const std::string& path) const {
    const auto root = rootFolder();
    if (!root) return nullptr;
    const std::string& rootPath = root->absolutePath();
    std::string standardized = KestlyPath::standardize(path);
    if (standardized.starts_with('/')) {
        if (!KestlyPath::isSameOrBelow(standardized, rootPath)) return nullptr;
        standardized.erase(0, rootPath.size());
    }
    auto folder = root;
    for (const std::string& component : KestlyPath::components(standardized)) {
        if (component == "/") continue;
        const auto subFolders = folder->subFolders();
        const auto next = subFolders->find(component);
        if (next == subFolders->end()) return nullptr;
        folder = next->second;
    }
    return folder;
}

std::shared_ptr<DCIFileObject> DCIFileManager::fileWithPath(const std::string& path) const {
    const auto folder = folderWithPath(KestlyPath::deletingLastComponent(path));
    if (!folder) return nullptr;
    const auto files = folder->files();
    const auto file = files->find(KestlyPath::lastComponent(path));
    return file == files->end() ? nullptr : file->second;
}
