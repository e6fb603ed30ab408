#include "CoreKestly/FileSystem/DCIFolderObject.h"

#include "CoreKestly/Platform/KestlyPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>
#include <vector>

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

bool isEntryName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// A copy of `dictionary` with `name` bound to `child`, or without `name` when there is no child.
template <class Dictionary>
std::shared_ptr<const Dictionary> replacingEntry(const Dictionary& dictionary, const std::string& name,
                                                 typename Dictionary::mapped_type child) {
    auto copy = std::make_shared<Dictionary>(dictionary);
    if (child) (*copy)[name] = std::move(child);
    else copy->erase(name);
    return copy;
}

}  // namespace

DCIFolderObject::DCIFolderObject(const std::string& path, const std::shared_ptr<DCIFolderObject>& parent,
                                 std::weak_ptr<DCIFileQueries> fileQueries, std::optional<DirectoryIdentity> identity)
    : absolutePath_(path), parent_(parent), fileQueries_(std::move(fileQueries)), identity_(identity),
      pathHash_(DCIPathHash(absolutePath_)), files_(std::make_shared<const DCIFileDictionary>()),
      subFolders_(std::make_shared<const DCIFolderDictionary>()) {}

std::shared_ptr<DCIFolderObject> DCIFolderObject::initWithPath(const std::string& path,
                                                               const std::shared_ptr<DCIFolderObject>& inFolder,
                                                               std::weak_ptr<DCIFileQueries> fileQueries) {
    struct stat status;
    std::optional<DirectoryIdentity> identity;
    if (stat(path.c_str(), &status) == 0) identity = DirectoryIdentity{status.st_dev, status.st_ino};
    return makeFolder(path, inFolder, std::move(fileQueries), identity);
}

std::shared_ptr<DCIFolderObject> DCIFolderObject::makeFolder(const std::string& path,
                                                             const std::shared_ptr<DCIFolderObject>& parent,
                                                             std::weak_ptr<DCIFileQueries> fileQueries,
                                                             std::optional<DirectoryIdentity> identity) {
    std::shared_ptr<DCIFolderObject> folder(new DCIFolderObject(path, parent, std::move(fileQueries), identity));
    if (!folder->exists()) return nullptr;
    folder->buildFileAndFolderList();
    return folder;
}

bool DCIFolderObject::exists() const {
    struct stat status;
    return lstat(absolutePath_.c_str(), &status) == 0;
}

bool DCIFolderObject::leadsBackToAncestor() const {
    if (!identity_) return false;
    for (auto ancestor = parent(); ancestor; ancestor = ancestor->parent()) {
        if (ancestor->identity_ == identity_) return true;
    }
    return false;
}

void DCIFolderObject::buildFileAndFolderList() {
    DCIFileDictionary files;
    DCIFolderDictionary subFolders;
    // A folder that leads back to one of its ancestors stays empty: listing it would list
    // that ancestor again, and so on without end.
    const auto entries = leadsBackToAncestor() ? std::vector<ListedEntry>() : listEntries();
    const auto self = shared_from_this();
    const auto queries = fileQueries_.lock();
    for (const auto& entry : entries) {
        const std::string fullPath = KestlyPath::appendingComponent(absolutePath_, entry.name);
        if (entry.folderIdentity) {
            if (auto folder = makeFolder(fullPath, self, fileQueries_, entry.folderIdentity)) {
                subFolders.emplace(entry.name, std::move(folder));
            }
        } else if (queries && queries->isFileOfInterest(fullPath)) {
            if (auto file = DCIFileObject::initWithFileName(entry.name, self)) {
                files.emplace(entry.name, std::move(file));
            }
        }
    }
    files_.store(std::make_shared<const DCIFileDictionary>(std::move(files)));
    subFolders_.store(std::make_shared<const DCIFolderDictionary>(std::move(subFolders)));
}

std::vector<DCIFolderObject::ListedEntry> DCIFolderObject::listEntries() const {
    // The listing is read whole and closed before any sub-folder is built, so a deep tree
    // holds one directory open at a time, not one per level.
    std::vector<ListedEntry> entries;
    const DirectoryStream directory(opendir(absolutePath_.c_str()));
    if (!directory) return entries;
    const int directoryDescriptor = dirfd(directory.get());
    while (const dirent* entry = readdir(directory.get())) {
        if (!isEntryName(entry->d_name)) continue;
        // A plain file needs no status here: its file object reads it anyway. Everything else
        // is looked at through links, so a link counts as what it leads to and a dangling one
        // as nothing; only folders and regular files can belong to the tree.
        if (entry->d_type == DT_REG) {
            entries.push_back({entry->d_name, std::nullopt});
            continue;
        }
        struct stat status;
        if (fstatat(directoryDescriptor, entry->d_name, &status, 0) != 0) continue;
        if (S_ISDIR(status.st_mode)) {
            entries.push_back({entry->d_name, DirectoryIdentity{status.st_dev, status.st_ino}});
        } else if (S_ISREG(status.st_mode)) {
            entries.push_back({entry->d_name, std::nullopt});
        }
    }
    return entries;
}

bool DCIFolderObject::generateHashes() {
    // Snapshots held for the whole walk: a range-for over `*files()` would outlive the
    // dictionary as soon as an update replaced it.
    const auto currentSubFolders = subFolders();
    const auto currentFiles = files();
    bool everyFileHashed = true;
    for (const auto& [name, folder] : *currentSubFolders) {
        if (!folder->generateHashes()) everyFileHashed = false;
    }
    const auto queries = fileQueries_.lock();
    for (const auto& [name, file] : *currentFiles) {
        const auto identifiers =
            queries ? queries->identifiersForFileAtPath(file->absolutePath()) : DCIFileIdentifiers{};
        if (identifiers.sha) {
            file->setFileHash(identifiers.sha);
            file->setSasID(identifiers.sasID);
        } else if (!file->fileHash()) {
            everyFileHashed = false;
        }
    }
    return everyFileHashed;
}

bool DCIFolderObject::updateItemAtSubPath(const std::string& name) {
    if (!isEntryName(name)) return false;
    const std::string fullPath = KestlyPath::appendingComponent(absolutePath_, name);
    const auto currentFiles = files();
    const auto currentSubFolders = subFolders();

    struct stat status;
    if (stat(fullPath.c_str(), &status) == 0) {
        const auto queries = fileQueries_.lock();
        if (S_ISREG(status.st_mode) && queries && queries->isFileOfInterest(fullPath)) {
            auto file = DCIFileObject::initWithFileName(name, shared_from_this());
            files_.store(replacingEntry(*currentFiles, name, std::move(file)));
            return true;
        }
        // Only a regular file can be a file of the tree, whatever its name: anything else
        // that took a file's name (a folder, a FIFO) removes that file.
        const bool fileReplaced = currentFiles->contains(name);
        if (fileReplaced) files_.store(replacingEntry(*currentFiles, name, nullptr));
        if (!S_ISDIR(status.st_mode) || currentSubFolders->contains(name)) return fileReplaced;
        const DirectoryIdentity identity{status.st_dev, status.st_ino};
        if (auto folder = makeFolder(fullPath, shared_from_this(), fileQueries_, identity)) {
            subFolders_.store(replacingEntry(*currentSubFolders, name, std::move(folder)));
        }
        return true;
    }
    if (currentSubFolders->contains(name)) {
        subFolders_.store(replacingEntry(*currentSubFolders, name, nullptr));
        return true;
    }
    if (currentFiles->contains(name)) {
        files_.store(replacingEntry(*currentFiles, name, nullptr));
        return true;
    }
    return false;
}

DCIFileSet DCIFolderObject::gatherFiles() const {
    DCIFileSet files;
    collectFiles(files);
    return files;
}

void DCIFolderObject::collectFiles(DCIFileSet& files) const {
    const auto currentFiles = this->files();
    const auto currentSubFolders = subFolders();
    for (const auto& [name, file] : *currentFiles) files.insert(file);
    for (const auto& [name, folder] : *currentSubFolders) folder->collectFiles(files);
}

DCIFolderSet DCIFolderObject::gatherFolders() const {
    DCIFolderSet folders;
    collectFolders(folders);
    return folders;
}

void DCIFolderObject::collectFolders(DCIFolderSet& folders) const {
    const auto currentSubFolders = subFolders();
    for (const auto& [name, folder] : *currentSubFolders) {
        folders.insert(folder);
        folder->collectFolders(folders);
    }
}

std::shared_ptr<DCIFileObject> DCIFolderObject::searchForFileWithHash(const std::optional<std::string>& hash) const {
    if (!hash) return nullptr;
    return findFile([&](const DCIFileObject& file) { return file.fileHash() == hash; });
}

std::shared_ptr<DCIFileObject> DCIFolderObject::searchForFileWithSasID(const std::optional<std::string>& sasID) const {
    if (!sasID) return nullptr;
    return findFile([&](const DCIFileObject& file) { return file.sasID() == sasID; });
}

std::shared_ptr<DCIFileObject> DCIFolderObject::findFile(
    const std::function<bool(const DCIFileObject&)>& matches) const {
    const auto currentFiles = files();
    const auto currentSubFolders = subFolders();
    for (const auto& [name, file] : *currentFiles) {
        if (matches(*file)) return file;
    }
    for (const auto& [name, folder] : *currentSubFolders) {
        if (auto file = folder->findFile(matches)) return file;
    }
    return nullptr;
}

std::string DCIFolderObject::relativePath() const {
    const auto folder = parent();
    if (!folder) return "";
    return KestlyPath::appendingComponent(folder->relativePath(), KestlyPath::lastComponent(absolutePath_));
}

std::shared_ptr<DCIFolderObject> DCIFolderObject::root() const {
    auto folder = std::const_pointer_cast<DCIFolderObject>(shared_from_this());
    while (auto above = folder->parent()) folder = std::move(above);
    return folder;
}

std::optional<std::string> DCIFolderObject::pathRelativeToFolder(const std::shared_ptr<DCIFolderObject>& folder) const {
    if (!folder) return std::nullopt;
    // This folder and its ancestors, nearest first.
    std::vector<std::shared_ptr<const DCIFolderObject>> ownLine{shared_from_this()};
    while (auto above = ownLine.back()->parent()) ownLine.push_back(std::move(above));

    size_t levelsUp = 0;
    for (auto candidate = folder; candidate; candidate = candidate->parent(), ++levelsUp) {
        for (size_t meeting = 0; meeting < ownLine.size(); ++meeting) {
            if (!ownLine[meeting]->isEqual(*candidate)) continue;
            std::string path;
            for (size_t level = 0; level < levelsUp; ++level) path = KestlyPath::appendingComponent(path, "..");
            for (size_t below = meeting; below-- > 0;) {
                path = KestlyPath::appendingComponent(path, KestlyPath::lastComponent(ownLine[below]->absolutePath_));
            }
            return path;
        }
    }
    return std::nullopt;
}

bool DCIFolderObject::isEqual(const DCIObject& other) const {
    const auto* folder = dynamic_cast<const DCIFolderObject*>(&other);
    return folder && folder->pathHash_ == pathHash_ && folder->absolutePath_ == absolutePath_;
}
