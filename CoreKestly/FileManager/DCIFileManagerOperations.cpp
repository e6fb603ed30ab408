// File operations for the host: moves, copies and new folders, at once or queued for the
// watcher thread, each followed by an update of the tree along the paths it touched.

#include "CoreKestly/FileManager/DCIFileManager.h"

#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Platform/Files/DCIFileOperations.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <sys/stat.h>

namespace {

// Paths of file operations are absolute: a relative one would mean the process's working
// folder on disk and the root in the tree.
bool usable(const std::optional<std::string>& path) { return path && path->starts_with('/'); }

std::string contextPath(const DCIAction& action, std::string_view key) {
    const auto value = action.contextObjectForKey(key);
    const std::string* path = value ? value->string() : nullptr;
    return path ? *path : std::string();
}

}  // namespace

std::shared_ptr<DCIAction> DCIFileManager::moveItemAtPath(const std::optional<std::string>& path,
                                                          const std::optional<std::string>& toPath, bool queued) {
    return makeFileAction(DCIActionTypeMoveFile, {{kDCIFileManagerMoveFrom, path}, {kDCIFileManagerMoveTo, toPath}}, queued);
}

std::shared_ptr<DCIAction> DCIFileManager::copyItemAtPath(const std::optional<std::string>& path,
                                                          const std::optional<std::string>& toPath, bool queued) {
    return makeFileAction(DCIActionTypeCopyFile, {{kDCIFileManagerMoveFrom, path}, {kDCIFileManagerMoveTo, toPath}}, queued);
}

std::shared_ptr<DCIAction> DCIFileManager::createDirectoryAtPath(const std::optional<std::string>& path, bool queued) {
    return makeFileAction(DCIActionTypeCreateDirectory, {{kDCIFileManagerCreatePath, path}}, queued);
}

std::shared_ptr<DCIAction> DCIFileManager::makeFileAction(
    uint64_t type, std::initializer_list<std::pair<std::string_view, std::optional<std::string>>> paths, bool queued) {
    for (const auto& [key, path] : paths) {
        if (!usable(path)) return nullptr;
    }
    auto action = DCIAction::initWithCategory(DCIActionCategoryCommon, type);
    for (const auto& [key, path] : paths) action->setContextObject(*path, key);
    if (queued) enqueueFileAction(action);
    return action;
}

std::shared_ptr<DCIAction> DCIFileManager::queueMoveItemAtPath(const std::optional<std::string>& path,
                                                               const std::optional<std::string>& toPath) {
    auto action = moveItemAtPath(path, toPath, true);
    signalFileManagerThread(false);
    return action;
}

std::shared_ptr<DCIAction> DCIFileManager::queueCopyItemAtPath(const std::optional<std::string>& path,
                                                               const std::optional<std::string>& toPath) {
    auto action = copyItemAtPath(path, toPath, true);
    signalFileManagerThread(false);
    return action;
}

std::shared_ptr<DCIAction> DCIFileManager::queueCreateDirectoryAtPath(const std::optional<std::string>& path) {
    auto action = createDirectoryAtPath(path, true);
    signalFileManagerThread(false);
    return action;
}

// An unqueued operation runs on the host's thread, beside the watcher's passes: it holds the
// tree from its first change on disk to its tree update, or a pass between the two would
// report what the operation made as a change of the user's.
bool DCIFileManager::unqueuedMoveItemAtPath(const std::optional<std::string>& path,
                                            const std::optional<std::string>& toPath) {
    const auto action = moveItemAtPath(path, toPath, false);
    std::lock_guard lock(treeLock_);
    return action && processFileMoveAction(action, false, false);
}

bool DCIFileManager::unqueuedCopyItemAtPath(const std::optional<std::string>& path,
                                            const std::optional<std::string>& toPath) {
    const auto action = copyItemAtPath(path, toPath, false);
    std::lock_guard lock(treeLock_);
    return action && processFileMoveAction(action, false, true);
}

bool DCIFileManager::unqueuedCreateDirectoryAtPath(const std::optional<std::string>& path) {
    const auto action = createDirectoryAtPath(path, false);
    if (!action) return false;
    std::unique_lock lock(treeLock_);
    if (processCreateDirectoryAction(action, false)) return true;
    lock.unlock();
    DCLogError("Error creating directory : %@", action->contextObjectForKey(kDCIError));
    return false;
}

void DCIFileManager::enqueueFileAction(const std::shared_ptr<DCIAction>& action) {
    if (!action) return;
    // A manager that is not started keeps the action for its next run, whose first turn
    // carries it out.
    action->setPriority(kFileActionPriority);
    fileActionQueue_->addAction(action);
}

std::shared_ptr<DCIAction> DCIFileManager::processNextFileEvent() {
    auto action = fileActionQueue_->popNextAction();
    if (!action) return nullptr;
    action->changeStatus(DCIActionStatusRunning);
    switch (action->type()) {
        case DCIActionTypeMoveFile: processFileMoveAction(action, true, false); break;
        case DCIActionTypeCreateDirectory: processCreateDirectoryAction(action, true); break;
        case DCIActionTypeCopyFile: processFileMoveAction(action, true, true); break;
        default:
            DCLogError("Unrecognised action in queue: %@", action);
            action->changeStatus(DCIActionStatusFailed);
    }
    return action;
}

bool DCIFileManager::processFileMoveAction(const std::shared_ptr<DCIAction>& action, bool inBackground, bool copying) {
    const std::string from = contextPath(*action, kDCIFileManagerMoveFrom);
    const std::string to = contextPath(*action, kDCIFileManagerMoveTo);
    if (copying) {
        const std::string folder = KestlyPath::deletingLastComponent(to);
        auto error = folder.empty() ? std::nullopt : DCIFileOperations::createDirectory(folder);
        if (auto copyError = DCIFileOperations::copyItem(from, to)) error = copyError;
        return finishFileAction(action, inBackground, error, to);
    }
    const auto error = DCIFileOperations::moveItem(from, to);
    if (error) return finishFileAction(action, inBackground, error, to);
    updateTreeForMove(from, to);
    if (inBackground) action->changeStatus(DCIActionStatusCompleted);
    return true;
}

bool DCIFileManager::processCreateDirectoryAction(const std::shared_ptr<DCIAction>& action, bool inBackground) {
    const std::string path = contextPath(*action, kDCIFileManagerCreatePath);
    const auto root = rootFolder();
    struct stat status;
    if (!root || stat(root->absolutePath().c_str(), &status) != 0) {
        if (inBackground) action->changeStatus(DCIActionStatusFailed);
        return false;
    }
    return finishFileAction(action, inBackground, DCIFileOperations::createDirectory(path), path);
}

bool DCIFileManager::finishFileAction(const std::shared_ptr<DCIAction>& action, bool inBackground,
                                      const std::optional<DCIError>& error, const std::string& updatedPath) {
    if (error) {
        // The error is in the context before the status change announces the failure.
        action->setContextObject(*error, kDCIError);
        if (inBackground) action->changeStatus(DCIActionStatusFailed);
        return false;
    }
    updateRootFolderForItemAtPath(updatedPath);
    if (inBackground) action->changeStatus(DCIActionStatusCompleted);
    return true;
}

void DCIFileManager::updateRootFolderForItemAtPath(const std::string& path) {
    if (!started()) return;
    std::lock_guard lock(treeLock_);
    if (journaling_) journal_.push_back(path);
    // A folder added unlisted, or links to folders, leave what only a whole scan can settle.
    if (const auto root = rootFolder(); root && !syncEntryAtPath(root, path)) needsFullPass_ = true;
}

void DCIFileManager::updateTreeForMove(const std::string& from, const std::string& to) {
    if (!started()) return;
    std::lock_guard lock(treeLock_);
    // The records go with the files, so that hashing the destination reads nothing it need not.
    const std::string source = KestlyPath::standardize(from), destination = KestlyPath::standardize(to);
    DCIFileSet moved;
    if (const auto file = fileWithPath(source)) moved.insert(file);
    else if (const auto folder = folderWithPath(source); folder && folder != rootFolder()) moved = folder->gatherFiles();
    const auto currentQueries = queries();
    for (const auto& file : moved) {
        currentQueries->fileMoved(file->absolutePath(), destination + file->absolutePath().substr(source.size()));
    }
    updateRootFolderForItemAtPath(source);
    updateRootFolderForItemAtPath(destination);
}

bool DCIFileManager::syncEntryAtPath(const std::shared_ptr<DCIFolderObject>& root, const std::string& path) {
    const std::string standardized = KestlyPath::standardize(path);
    if (!KestlyPath::isSameOrBelow(standardized, root->absolutePath()) || standardized == root->absolutePath()) return true;
    const auto components = KestlyPath::components(standardized.substr(root->absolutePath().size()));
    bool complete = true;
    auto folder = root;
    for (size_t next = 0; folder && next < components.size(); ++next) {
        const std::string& name = components[next];
        if (name == "/") continue;
        if (next + 1 < components.size()) {
            complete = complete && folder->subFolders()->contains(name);
            folder = folder->subFolderMadeByOperation(name);
            continue;
        }
        folder->replaceItemAtSubPath(name);
        const auto subFolders = folder->subFolders();
        const auto made = subFolders->find(name);
        struct stat status;
        const bool isLink = lstat(standardized.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
        complete = complete && (made == subFolders->end() || (!isLink && !made->second->metFolderLinks()));
    }
    return complete;
}
