// Change detection: a fresh scan of the root compared with the tree held so far, told to the
// host as added, removed, moved and modified files and folders.
//
// Sets are walked in path order, so that a pass over a given pair of trees always posts the
// same events in the same order, ambiguous pairings included.

#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

namespace {

template <class Set>
std::vector<typename Set::value_type> inPathOrder(const Set& set) {
    // Each path is built once: a file object makes its path when asked.
    std::vector<std::pair<std::string, typename Set::value_type>> keyed;
    keyed.reserve(set.size());
    for (const auto& member : set) keyed.emplace_back(member->absolutePath(), member);
    std::ranges::sort(keyed, {}, [](const auto& entry) -> const std::string& { return entry.first; });
    std::vector<typename Set::value_type> members;
    members.reserve(keyed.size());
    for (auto& entry : keyed) members.push_back(std::move(entry.second));
    return members;
}

void tell(std::vector<std::shared_ptr<DCIEvent>>& told, DCIEventType type, DCIDictionary context) {
    auto event = DCIEvent::commonEventWithType(type);
    event->setContext(std::move(context));
    told.push_back(std::move(event));
}

using FolderPointer = std::shared_ptr<DCIFolderObject>;

// `path` from inside the folder at `folderPath`, which holds it.
std::string pathInside(const std::string& path, const std::string& folderPath) {
    return path.substr(folderPath.size() + 1);
}

// How well a folder that appeared stands for one that went: how many of the gone folder's
// hashes it holds anywhere below it, and how many of them at the same place.
struct Resemblance {
    size_t hashesHeld = 0;
    size_t hashesInPlace = 0;
    size_t lastHash = 0;  // so that each hash of the gone folder counts once
};

// Pairs each removed folder, in path order, with the added folder (at any depth of the added
// subtrees) that holds most of its files' hashes; ties go to the one holding more of them in
// place, then to the same name, then to the path first in order. Answers, for each added
// folder that was paired, the removed folder it moved from.
std::unordered_map<const DCIFolderObject*, FolderPointer> pairMovedFolders(const std::vector<FolderPointer>& removed,
                                                                           const std::vector<FolderPointer>& added) {
    // The hashed files of the added subtrees, each with the topmost added folder above it.
    std::unordered_map<std::string, std::vector<std::pair<std::shared_ptr<DCIFileObject>, const DCIFolderObject*>>> newByHash;
    for (const auto& top : added) {
        for (const auto& file : top->gatherFiles()) {
            if (const auto hash = file->fileHash()) newByHash[*hash].emplace_back(file, top.get());
        }
    }
    std::unordered_map<const DCIFolderObject*, FolderPointer> movedFrom;
    for (const auto& gone : removed) {
        std::unordered_map<std::string, std::vector<std::string>> placesByHash;
        const DCIFileSet goneFiles = gone->gatherFiles();
        for (const auto& file : goneFiles) {
            if (const auto hash = file->fileHash()) {
                placesByHash[*hash].push_back(pathInside(file->absolutePath(), gone->absolutePath()));
            }
        }
        std::unordered_map<const DCIFolderObject*, std::pair<FolderPointer, Resemblance>> candidates;
        size_t hashNumber = 0;
        for (const auto& [hash, places] : placesByHash) {
            const auto found = newByHash.find(hash);
            if (found == newByHash.end()) continue;
            ++hashNumber;
            for (const auto& [file, top] : found->second) {
                for (auto folder = file->parent(); folder; folder = folder->parent()) {
                    auto& [candidate, resemblance] = candidates[folder.get()];
                    candidate = folder;
                    if (resemblance.lastHash != hashNumber) ++resemblance.hashesHeld;
                    resemblance.lastHash = hashNumber;
                    if (std::ranges::find(places, pathInside(file->absolutePath(), folder->absolutePath())) != places.end()) {
                        ++resemblance.hashesInPlace;
                    }
                    if (folder.get() == top) break;
                }
            }
        }
        const std::string goneName = KestlyPath::lastComponent(gone->absolutePath());
        const auto rank = [&](const std::pair<FolderPointer, Resemblance>& candidate) {
            const auto& [folder, resemblance] = candidate;
            return std::tuple(resemblance.hashesHeld, resemblance.hashesInPlace,
                              KestlyPath::lastComponent(folder->absolutePath()) == goneName);
        };
        const std::pair<FolderPointer, Resemblance>* best = nullptr;
        for (const auto& [key, candidate] : candidates) {
            if (movedFrom.contains(key)) continue;
            if (!best || rank(candidate) > rank(*best) ||
                (rank(candidate) == rank(*best) && candidate.first->absolutePath() < best->first->absolutePath())) {
                best = &candidate;
            }
        }
        if (best) movedFrom.emplace(best->first.get(), gone);
    }
    return movedFrom;
}

// The hashes of `files`.
std::unordered_set<std::string> hashesOf(const DCIFileSet& files) {
    std::unordered_set<std::string> hashes;
    for (const auto& file : files) {
        if (const auto hash = file->fileHash()) hashes.insert(*hash);
    }
    return hashes;
}

// Takes out of `files` those of `candidates` whose hash is among `hashes`.
void eraseFilesWithHashes(DCIFileSet& files, const DCIFileSet& candidates, const std::unordered_set<std::string>& hashes) {
    for (const auto& file : candidates) {
        if (const auto hash = file->fileHash(); hash && hashes.contains(*hash)) files.erase(file);
    }
}

}  // namespace

bool DCIFileManager::lookForChanges(uint64_t generation, std::optional<DCIDate> unsettledAfter,
                                    const DCIFSEventBatch& changes) {
    const auto oldRoot = rootFolder();
    if (!oldRoot) return false;
    TreeChanges treeChanges;
    const bool owed = needsFullPass_.exchange(false);
    const bool wholeTree = owed || changes.everything || fullPasses_.load() || oldRoot->metFolderLinks();
    const bool replaced = wholeTree || !relistChangedFolders(oldRoot, changes.folders, treeChanges);
    if (replaced) {
        const auto newRoot = scanAndInstall(oldRoot->absolutePath(), generation);
        if (!newRoot) return false;
        // Gathered only now, so that the operations made during the scan, which it applied to
        // the new tree too, are in both.
        const DCIFolderSet oldFolders = oldRoot->gatherFolders(), newFolders = newRoot->gatherFolders();
        treeChanges = {oldRoot->gatherFiles(), newRoot->gatherFiles(), inPathOrder(folderSetFromSet(oldFolders, newFolders)),
                       inPathOrder(folderSetFromSet(newFolders, oldFolders))};
    }
    // A stop cut this pass's hashing short: what it found is no longer told.
    if (!runIsCurrent(generation)) return replaced;
    const auto events = reportChanges(std::move(treeChanges), unsettledAfter);
    std::lock_guard lock(runStateMutex_);
    postWhileCurrent(generation, events);
    return replaced;
}

bool DCIFileManager::relistChangedFolders(const std::shared_ptr<DCIFolderObject>& root,
                                          const std::vector<std::string>& paths, TreeChanges& changes) {
    std::lock_guard lock(treeLock_);
    // A root that went is a whole pass's to find: it then reports nothing.
    if (rootFolder() != root || !root->exists()) return false;
    // Each folder once, outermost first; a path the tree does not know is looked at from the
    // nearest folder above it that it knows.
    std::set<std::string> known;
    for (const auto& changed : paths) {
        std::string path = KestlyPath::standardize(changed);
        if (!KestlyPath::isSameOrBelow(path, root->absolutePath())) continue;
        while (path != root->absolutePath() && !folderWithPath(path)) path = KestlyPath::deletingLastComponent(path);
        known.insert(std::move(path));
    }
    std::vector<std::pair<std::shared_ptr<DCIFolderObject>, DCIFolderRelisting>> relistings;
    for (const auto& path : known) {
        const auto folder = folderWithPath(path);
        auto relisting = folder->relist();
        // Links decide which path lists a folder only over a whole walk.
        if (relisting.metFolderLinks) return false;
        relistings.emplace_back(folder, std::move(relisting));
    }
    for (const auto& [folder, relisting] : relistings) {
        // A folder that a relisting above it built anew was listed whole there.
        if (folderWithPath(folder->absolutePath()) != folder || !folder->commit(relisting)) continue;
        compareListings(*relisting.oldFiles, *relisting.newFiles, *relisting.oldSubFolders, *relisting.newSubFolders, changes);
    }
    std::ranges::sort(changes.removedFolders, {}, [](const auto& folder) { return folder->absolutePath(); });
    std::ranges::sort(changes.addedFolders, {}, [](const auto& folder) { return folder->absolutePath(); });
    return true;
}

void DCIFileManager::compareListings(const DCIFileDictionary& oldFiles, const DCIFileDictionary& newFiles,
                                     const DCIFolderDictionary& oldFolders, const DCIFolderDictionary& newFolders,
                                     TreeChanges& changes) {
    for (const auto& [name, old] : oldFiles) {
        const auto current = newFiles.find(name);
        if (current != newFiles.end() && (current->second == old || current->second->fileHash() == old->fileHash())) continue;
        changes.oldFiles.insert(old);
        if (current != newFiles.end()) changes.newFiles.insert(current->second);
    }
    for (const auto& [name, file] : newFiles) {
        if (!oldFiles.contains(name)) changes.newFiles.insert(file);
    }
    for (const auto& [name, old] : oldFolders) {
        const auto current = newFolders.find(name);
        if (current == newFolders.end()) {
            changes.removedFolders.push_back(old);
            changes.oldFiles.merge(old->gatherFiles());
        } else if (current->second != old) {
            // Another folder under the same name: the same folder to a whole scan, judged entry by entry.
            compareListings(*old->files(), *current->second->files(), *old->subFolders(), *current->second->subFolders(),
                            changes);
        }
    }
    for (const auto& [name, folder] : newFolders) {
        if (oldFolders.contains(name)) continue;
        changes.addedFolders.push_back(folder);
        changes.newFiles.merge(folder->gatherFiles());
    }
}

DCIFileManager::Events DCIFileManager::reportChanges(TreeChanges changes, std::optional<DCIDate> unsettledAfter) {
    Events told;
    DCIFileSet& oldFiles = changes.oldFiles;
    DCIFileSet& newFiles = changes.newFiles;
    if (unsettledAfter) leaveUnsettledFilesAsTheyWere(newFiles, oldFiles, *unsettledAfter);

    // The caches keep records for the files of the tree only.
    const auto currentQueries = queries();
    for (const auto& file : oldFiles) {
        if (!newFiles.contains(file)) currentQueries->forgetFile(file->absolutePath());
    }

    const auto& removed = changes.removedFolders;
    const auto& added = changes.addedFolders;
    const auto movedFrom = pairMovedFolders(removed, added);
    for (const auto& top : added) {
        const bool topMoved = movedFrom.contains(top.get());
        if (!topMoved) tell(told, DCIEventTypeFolderAdded, {{std::string(kDCIFolderObject), top}});
        // The folders moved into a new one are told after it, with their files that kept
        // their content, which need no event of their own.
        DCIFolderSet subtree = top->gatherFolders();
        subtree.insert(top);
        for (const auto& folder : inPathOrder(subtree)) {
            const auto moved = movedFrom.find(folder.get());
            if (moved == movedFrom.end()) continue;
            tell(told, DCIEventTypeFolderMoved, {{std::string(kDCIFolderObject), folder},
                                                 {std::string(kDCIOldFolderObject), moved->second}});
            const DCIFileSet oldInside = moved->second->gatherFiles(), newInside = folder->gatherFiles();
            eraseFilesWithHashes(newFiles, newInside, hashesOf(oldInside));
            eraseFilesWithHashes(oldFiles, oldInside, hashesOf(newInside));
        }
        if (topMoved) continue;
        // A new folder's event stands for everything in it but the folders moved there.
        std::vector<FolderPointer> pending{top};
        while (!pending.empty()) {
            const auto folder = std::move(pending.back());
            pending.pop_back();
            for (const auto& [name, file] : *folder->files()) newFiles.erase(file);
            for (const auto& [name, sub] : *folder->subFolders()) {
                if (!movedFrom.contains(sub.get())) pending.push_back(sub);
            }
        }
    }
    std::unordered_set<const DCIFolderObject*> movedAway;
    for (const auto& [to, from] : movedFrom) movedAway.insert(from.get());
    for (const auto& gone : removed) {
        if (movedAway.contains(gone.get())) continue;
        for (const auto& file : gone->gatherFiles()) oldFiles.erase(file);
        tell(told, DCIEventTypeFolderRemoved, {{std::string(kDCIOldFolderObject), gone}});
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
    compareNewFileSet(newOnly, oldOnly, told);
    findModifiedFilesInNewSet(newFiles, oldFiles, told);
    return told;
}

void DCIFileManager::leaveUnsettledFilesAsTheyWere(DCIFileSet& newFiles, const DCIFileSet& oldFiles,
                                                   const DCIDate& unsettledAfter) {
    for (auto next = newFiles.begin(); next != newFiles.end();) {
        const auto& file = *next;
        const auto old = oldFiles.find(file);
        const bool changed = old == oldFiles.end() || (*old)->fileHash() != file->fileHash();
        const auto stamp = changed ? DCIFileStamp::ofFile(file->absolutePath()) : std::nullopt;
        if (!stamp || stamp->mdate <= unsettledAfter) {
            ++next;
        } else if (old != oldFiles.end()) {
            file->setFileHash((*old)->fileHash());
            file->setSasID((*old)->sasID());
            ++next;
        } else {
            if (const auto folder = file->parent()) folder->removeFile(file->name());
            next = newFiles.erase(next);
        }
    }
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

void DCIFileManager::compareNewFileSet(const DCIFileSet& newFiles, DCIFileSet& oldFiles, DCIFileManager::Events& told) {
    const auto oldInOrder = inPathOrder(oldFiles);
    std::unordered_map<std::string, std::shared_ptr<DCIFileObject>> oldFileByHash;
    for (const auto& file : oldInOrder) {
        if (const auto hash = file->fileHash()) oldFileByHash[*hash] = file;
    }
    for (const auto& file : inPathOrder(newFiles)) {
        const auto hash = file->fileHash();
        const auto old = hash ? oldFileByHash.find(*hash) : oldFileByHash.end();
        if (old == oldFileByHash.end()) {
            tell(told, DCIEventTypeFileAdded, {{std::string(kDCIFileObject), file}});
            continue;
        }
        // The table keeps the match, so each copy of a moved file is told as moved from it.
        tell(told, DCIEventTypeFileMoved, {{std::string(kDCIFileObject), file}, {std::string(kDCIOldFileObject), old->second}});
        oldFiles.erase(old->second);
    }
    for (const auto& file : oldInOrder) {
        if (oldFiles.contains(file)) tell(told, DCIEventTypeFileRemoved, {{std::string(kDCIOldFileObject), file}});
    }
}

void DCIFileManager::findModifiedFilesInNewSet(const DCIFileSet& newFiles, const DCIFileSet& oldFiles,
                                               DCIFileManager::Events& told) {
    DCIFileSet modified;
    for (const auto& old : oldFiles) {
        const auto current = newFiles.find(old);
        if (current == newFiles.end()) continue;
        const auto hash = (*current)->fileHash();
        if (hash && hash != old->fileHash()) modified.insert(*current);
    }
    for (const auto& file : inPathOrder(modified)) tell(told, DCIEventTypeFileModified, {{std::string(kDCIFileObject), file}});
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
