#include "CoreKestly/FileSystem/DCIFolderObject.h"

#include "CoreKestly/Platform/Files/DCIFileOperations.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <string_view>
#include <type_traits>
#include <system_error>
#include <thread>
#include <vector>

namespace {

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

bool isEntryName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

// The dictionary as a folder stores it, holding no more memory than its entries need.
template <class Object>
std::shared_ptr<const DCIEntryDictionary<Object>> sealed(DCIEntryDictionary<Object>&& dictionary) {
    dictionary.shrinkToFit();
    return std::make_shared<const DCIEntryDictionary<Object>>(std::move(dictionary));
}

// A copy of `dictionary` with `name` bound to `child`, or without `name` when there is no child.
template <class Object>
std::shared_ptr<const DCIEntryDictionary<Object>> replacingEntry(const DCIEntryDictionary<Object>& dictionary,
                                                                 const std::string& name,
                                                                 std::type_identity_t<std::shared_ptr<Object>> child) {
    DCIEntryDictionary<Object> copy(dictionary);
    copy.erase(name);
    if (child) copy.insertOrReplace(std::move(child));
    return sealed(std::move(copy));
}

}  // namespace

DCIFolderObject::DCIFolderObject(const std::string& path, const std::shared_ptr<DCIFolderObject>& parent,
                                 std::weak_ptr<DCIFileQueries> fileQueries, std::optional<DirectoryIdentity> identity)
    : absolutePath_(std::make_shared<const std::string>(path)), parent_(parent), fileQueries_(std::move(fileQueries)),
      identity_(identity), pathHash_(DCIPathHash(path)), files_(std::make_shared<const DCIFileDictionary>()),
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
    return lstat(absolutePath().c_str(), &status) == 0;
}

DCIFolderObject::Walk DCIFolderObject::walkFromHere() const {
    Walk walk;
    for (auto ancestor = parent(); ancestor; ancestor = ancestor->parent()) {
        if (ancestor->identity_) walk.listed.insert(*ancestor->identity_);
    }
    return walk;
}

void DCIFolderObject::buildFileAndFolderList() {
    Walk walk = walkFromHere();
    list(walk);
    finish(walk);
    metFolderLinks_ = walk.metFolderLinks;
}

void DCIFolderObject::list(Walk& walk) {
    DCIFileDictionary files;
    DCIFolderDictionary subFolders;
    // A folder listed already (a link back up, or a second link to one folder) stays empty:
    // listing it again would repeat its subtree, without end for a loop.
    const bool firstVisit = !identity_ || walk.listed.insert(*identity_).second;
    const auto entries = firstVisit ? listEntries() : std::vector<ListedEntry>();
    const auto self = shared_from_this();
    for (const auto& entry : entries) {
        if (entry.folderIdentity) {
            const std::string fullPath = KestlyPath::appendingComponent(absolutePath(), entry.name);
            std::shared_ptr<DCIFolderObject> folder(new DCIFolderObject(fullPath, self, fileQueries_, entry.folderIdentity));
            walk.metFolderLinks = walk.metFolderLinks || entry.isLink;
            if (entry.isLink) walk.throughLinks.push_back(folder);
            else folder->list(walk);
            subFolders.insertOrReplace(std::move(folder));
        } else if (auto file = DCIFileObject::initWithFileName(entry.name, self, entry.fileStatus)) {
            files.insertOrReplace(std::move(file));
        }
    }
    files_.store(sealed(std::move(files)));
    subFolders_.store(sealed(std::move(subFolders)));
}

void DCIFolderObject::finish(Walk& walk) {
    // Indexed, not iterated: listing a folder may add links of its own to the end.
    for (size_t next = 0; next < walk.throughLinks.size(); ++next) {
        const auto folder = walk.throughLinks[next];
        folder->list(walk);
    }
}

std::vector<DCIFolderObject::ListedEntry> DCIFolderObject::listEntries() const {
    // The listing is read whole and closed before any sub-folder is built, so a deep tree
    // holds one directory open at a time, not one per level. Sorted, so that which path
    // lists a folder reached by several never depends on the order of the directory.
    std::vector<ListedEntry> entries;
    const DirectoryStream directory(opendir(absolutePath().c_str()));
    if (!directory) return entries;
    const int directoryDescriptor = dirfd(directory.get());
    const auto queries = fileQueries_.lock();
    const bool removesAbandoned = queries && queries->removesAbandonedStagingItems();
    while (const dirent* entry = readdir(directory.get())) {
        if (!isEntryName(entry->d_name)) continue;
        // A copy under way is no item of the tree until it is in place; one cut short never will be.
        if (DCIFileOperations::isStagingName(entry->d_name)) {
            if (removesAbandoned) DCIFileOperations::removeAbandonedStagingItem(absolutePath(), entry->d_name);
            continue;
        }
        // A plain file's name decides first, so a file of no interest costs no status read.
        // Everything is looked at through links, so a link counts as what it leads to and a
        // dangling one as nothing; only folders and regular files can belong to the tree.
        const bool ofInterest = queries && queries->isFileOfInterest(KestlyPath::appendingComponent(absolutePath(), entry->d_name));
        if (entry->d_type == DT_REG && !ofInterest) continue;
        bool isLink = entry->d_type == DT_LNK;
        struct stat status;
        if (entry->d_type == DT_UNKNOWN) {
            if (fstatat(directoryDescriptor, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
            isLink = S_ISLNK(status.st_mode);
        }
        if (fstatat(directoryDescriptor, entry->d_name, &status, 0) != 0) continue;
        if (S_ISDIR(status.st_mode)) {
            entries.push_back({entry->d_name, DirectoryIdentity{status.st_dev, status.st_ino}, isLink});
        } else if (S_ISREG(status.st_mode) && ofInterest) {
            entries.push_back({entry->d_name, std::nullopt, false, status});
        }
    }
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return entries;
}

bool DCIFolderObject::generateHashes() { return generateHashes(1); }

bool DCIFolderObject::generateHashes(unsigned threads) {
    std::vector<std::shared_ptr<DCIFileObject>> files;  // the tree's own objects: no path is copied
    std::vector<std::shared_ptr<const DCIFolderObject>> pending{shared_from_this()};
    while (!pending.empty()) {
        const auto folder = std::move(pending.back());
        pending.pop_back();
        for (const auto& [name, file] : *folder->files()) files.push_back(file);
        for (const auto& [name, sub] : *folder->subFolders()) pending.push_back(sub);
    }
    const auto queries = fileQueries_.lock();
    std::vector<char> hashed(files.size(), 0);
    std::atomic<size_t> next{0};
    const auto work = [&] {
        for (size_t index; (index = next.fetch_add(1)) < files.size();) hashed[index] = hashFile(*files[index], queries.get());
    };
    {
        std::vector<std::jthread> helpers;
        try {
            while (helpers.size() + 1 < threads) helpers.emplace_back(work);
        } catch (const std::system_error&) {
            // Fewer threads only make it slower: the work is shared by those that started.
        }
        work();
    }
    // One file that cannot be read must not hold back the rest of the tree: it is left out
    // until it can be, and a file that vanished meanwhile is gone from the tree as from disk.
    // A folder's files are next to each other in `files`, so each folder loses its unhashed
    // files in one copy of its entries: a stop leaves every file unhashed, and a copy per
    // file would hold the stop up.
    bool everyFileHashed = true;
    for (size_t first = 0, end; first < files.size(); first = end) {
        const auto folder = files[first]->parent();
        std::vector<std::string_view> unhashed;
        for (end = first; end < files.size() && files[end]->parent() == folder; ++end) {
            if (!hashed[end]) unhashed.push_back(files[end]->name());
        }
        everyFileHashed = everyFileHashed && unhashed.empty();
        if (folder && !unhashed.empty()) folder->removeFiles(unhashed);
    }
    return everyFileHashed;
}

bool DCIFolderObject::hashFile(DCIFileObject& file, DCIFileQueries* queries) {
    if (!queries) return file.fileHash().has_value();  // a detached tree hashes by itself
    const auto identifiers = queries->identifiersForFile(file.absolutePath(), file.stamp());
    if (!identifiers.sha) return false;
    file.setFileHash(identifiers.sha);
    file.setSasID(identifiers.sasID);
    return true;
}

bool DCIFolderObject::updateItemAtSubPath(const std::string& name) {
    if (!isEntryName(name)) return false;
    const std::string fullPath = KestlyPath::appendingComponent(absolutePath(), name);
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

bool DCIFolderObject::replaceItemAtSubPath(const std::string& name) {
    if (!isEntryName(name)) return false;
    const std::string fullPath = KestlyPath::appendingComponent(absolutePath(), name);
    std::shared_ptr<DCIFileObject> file;
    std::shared_ptr<DCIFolderObject> folder;
    struct stat status;
    if (stat(fullPath.c_str(), &status) == 0) {
        const auto queries = fileQueries_.lock();
        if (S_ISDIR(status.st_mode)) {
            folder = makeFolder(fullPath, shared_from_this(), fileQueries_, DirectoryIdentity{status.st_dev, status.st_ino});
            if (folder) folder->generateHashes();
        } else if (S_ISREG(status.st_mode) && queries && queries->isFileOfInterest(fullPath)) {
            file = DCIFileObject::initWithFileName(name, shared_from_this());
            if (file && !hashFile(*file, queries.get())) file.reset();
        }
    }
    files_.store(replacingEntry(*files(), name, std::move(file)));
    subFolders_.store(replacingEntry(*subFolders(), name, std::move(folder)));
    return true;
}

std::shared_ptr<DCIFolderObject> DCIFolderObject::subFolderMadeByOperation(const std::string& name) {
    const auto currentSubFolders = subFolders();
    if (const auto known = currentSubFolders->find(name); known != currentSubFolders->end()) return known->second;
    struct stat status;
    const std::string fullPath = KestlyPath::appendingComponent(absolutePath(), name);
    if (!isEntryName(name) || stat(fullPath.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return nullptr;
    std::shared_ptr<DCIFolderObject> folder(
        new DCIFolderObject(fullPath, shared_from_this(), fileQueries_, DirectoryIdentity{status.st_dev, status.st_ino}));
    subFolders_.store(replacingEntry(*currentSubFolders, name, folder));
    return folder;
}

DCIFolderRelisting DCIFolderObject::relist() const {
    DCIFolderRelisting relisting{files(), nullptr, subFolders(), nullptr};
    DCIFileDictionary files;
    DCIFolderDictionary subFolders;
    const auto self = std::const_pointer_cast<DCIFolderObject>(shared_from_this());
    const auto queries = fileQueries_.lock();
    for (const auto& entry : listEntries()) {
        const std::string fullPath = KestlyPath::appendingComponent(absolutePath(), entry.name);
        if (entry.folderIdentity) {
            relisting.metFolderLinks = relisting.metFolderLinks || entry.isLink;
            const auto known = relisting.oldSubFolders->find(entry.name);
            if (known != relisting.oldSubFolders->end() && known->second->identity_ == entry.folderIdentity) {
                subFolders.insertOrReplace(known->second);
            } else if (auto folder = makeFolder(fullPath, self, fileQueries_, entry.folderIdentity)) {
                folder->generateHashes();
                relisting.metFolderLinks = relisting.metFolderLinks || folder->metFolderLinks();
                subFolders.insertOrReplace(std::move(folder));
            }
            continue;
        }
        const auto identifiers = queries ? queries->identifiersForFile(fullPath, DCIFileStamp::ofStatus(entry.fileStatus))
                                         : DCIFileIdentifiers{};
        if (!identifiers.sha) continue;
        const auto known = relisting.oldFiles->find(entry.name);
        if (known != relisting.oldFiles->end() && known->second->fileHash() == identifiers.sha) {
            files.insertOrReplace(known->second);
        } else if (auto file = DCIFileObject::initWithFileName(entry.name, self, entry.fileStatus)) {
            file->setFileHash(identifiers.sha);
            file->setSasID(identifiers.sasID);
            files.insertOrReplace(std::move(file));
        }
    }
    relisting.newFiles = sealed(std::move(files));
    relisting.newSubFolders = sealed(std::move(subFolders));
    return relisting;
}

bool DCIFolderObject::commit(const DCIFolderRelisting& relisting) {
    if (files() != relisting.oldFiles || subFolders() != relisting.oldSubFolders) return false;
    files_.store(relisting.newFiles);
    subFolders_.store(relisting.newSubFolders);
    return true;
}

bool DCIFolderObject::removeFile(const std::string& name) { return removeFiles({name}); }

bool DCIFolderObject::removeFiles(const std::vector<std::string_view>& names) {
    const auto currentFiles = files();
    DCIFileDictionary remaining(*currentFiles);
    bool removed = false;
    for (const auto name : names) removed = remaining.erase(name) || removed;
    if (removed) files_.store(sealed(std::move(remaining)));
    return removed;
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

std::string_view DCIFolderObject::name() const {
    const std::string_view path = absolutePath();
    return path.substr(path.rfind('/') + 1);
}

std::string DCIFolderObject::relativePath() const {
    const auto folder = parent();
    if (!folder) return "";
    return KestlyPath::appendingComponent(folder->relativePath(), KestlyPath::lastComponent(absolutePath()));
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
                path = KestlyPath::appendingComponent(path, KestlyPath::lastComponent(ownLine[below]->absolutePath()));
            }
            return path;
        }
    }
    return std::nullopt;
}

bool DCIFolderObject::isEqual(const DCIObject& other) const {
    const auto* folder = dynamic_cast<const DCIFolderObject*>(&other);
    return folder && folder->pathHash_ == pathHash_ && folder->absolutePath() == absolutePath();
}
