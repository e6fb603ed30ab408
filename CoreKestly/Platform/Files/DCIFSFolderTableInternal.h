#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

/// The folders the event stream knows below its root: each directory once, by device and inode,
/// with every path that leads to it (links to folders can give it several) and its inotify watch,
/// or none while a limit keeps it polled. A path that goes (a link removed, a folder moved away)
/// is dropped without disturbing the folder's other paths; a folder left with no path is
/// dropped, and its watch handed back for the caller to remove. Paths are absolute and
/// standardised.
class DCIFSFolderTable {
public:
    struct Identity {
        dev_t device;
        ino_t inode;
        static Identity of(const struct stat& status) { return {status.st_dev, status.st_ino}; }
        auto operator<=>(const Identity&) const = default;
    };
    struct Folder {
        Identity identity;
        std::set<std::string> paths;
        int watch = -1;      // -1 while the folder is polled
        timespec changed{};  // its status change time when last listed, which polling compares
    };

    /// A folder is known by at most this many paths, so that links which multiply the paths
    /// of a tree (two links to each level, thirty levels deep) cost bounded memory.
    static constexpr size_t kMaximumPaths = 64;

    /// Whether `path` may be recorded for the folder `identity`: not when it passes through
    /// that folder on its way (a link back up the tree, which would go round without end), nor
    /// when the folder has its fill of paths.
    bool admits(const std::string& path, Identity identity) const;
    /// Records that `path`, which leads to no other folder, leads to `identity`; a folder new
    /// to the table starts polled.
    Folder& add(const std::string& path, Identity identity);
    void setWatch(Folder& folder, int watch);

    Folder* find(Identity identity);
    Folder* at(const std::string& path);
    Folder* watchedBy(int watch);

    /// Forgets `path` and every path below it; answers the watches of the folders left with
    /// no path.
    std::vector<int> forgetUnder(const std::string& path);
    /// The recorded paths one level below `path`.
    std::vector<std::string> childPaths(const std::string& path) const;

    /// Every path of every polled folder.
    std::vector<std::string> polledPaths() const;
    std::vector<Identity> polledFolders() const { return {polled_.begin(), polled_.end()}; }
    size_t folderCount() const { return folders_.size(); }
    size_t watchCount() const { return identityByWatch_.size(); }
    size_t polledCount() const { return polled_.size(); }

private:
    using PathIterator = std::map<std::string, Identity>::const_iterator;

    std::pair<PathIterator, PathIterator> pathsBelow(const std::string& path) const;
    void forgetPath(const std::string& path, std::vector<int>& orphanedWatches);

    std::map<Identity, Folder> folders_;
    std::map<std::string, Identity> identityByPath_;
    std::unordered_map<int, Identity> identityByWatch_;
    std::set<Identity> polled_;
};
