// The scan backend: a walk of the configured folders on a thread of its own, for machines
// without a locate database. Links below those folders are not followed, so the walk always
// ends.

#include "CoreKestly/Platform/Search/DCIFileNamePatternInternal.h"
#include "CoreKestly/Platform/Search/DCIMetadataGatheringInternal.h"
#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <optional>
#include <functional>
#include <stop_token>
#include <thread>

namespace {

struct DirectoryEntry {
    std::string name;
    bool isFolder;
};

// The entries of one folder, read whole and closed before the walk goes deeper, so the walk
// holds one descriptor at a time at any depth. `path` is followed when it is a link only if
// `followsLink`. Nothing, with errno set, when the folder cannot be opened.
std::optional<std::vector<DirectoryEntry>> readFolder(const std::string& path, bool followsLink,
                                                      const std::atomic<bool>& cancelled) {
    std::vector<DirectoryEntry> entries;
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followsLink ? 0 : O_NOFOLLOW));
    if (fd < 0) return std::nullopt;
    DIR* folder = fdopendir(fd);
    if (!folder) {
        const int error = errno;
        close(fd);
        errno = error;
        return std::nullopt;
    }
    while (const dirent* entry = readdir(folder)) {
        if (cancelled) break;
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") continue;
        bool isFolder = entry->d_type == DT_DIR;
        struct stat status;
        if (entry->d_type == DT_UNKNOWN && fstatat(dirfd(folder), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0)
            isFolder = S_ISDIR(status.st_mode);
        entries.push_back({std::string(name), isFolder});
    }
    closedir(folder);
    return entries;
}

DCIMetadataGathered scan(const std::vector<std::string>& folders, const DCICandidateRule& rule,
                         const std::atomic<bool>& cancelled) {
    std::vector<std::string> found;
    std::vector<std::string> toVisit(folders.rbegin(), folders.rend());
    std::string unreadable;  // the configured folders that could not be read, and why
    size_t foldersRead = 0;
    while (!toVisit.empty() && !cancelled && found.size() < rule.maximumResults) {
        const std::string folder = std::move(toVisit.back());
        toVisit.pop_back();
        // A configured folder may be a link to where the files are; nothing below it is followed.
        const bool isConfigured = std::find(folders.begin(), folders.end(), folder) != folders.end();
        const auto entries = readFolder(folder, isConfigured, cancelled);
        if (!entries) {
            if (isConfigured) unreadable += (unreadable.empty() ? "" : "; ") + folder + ": " + std::strerror(errno);
            continue;
        }
        foldersRead += isConfigured;
        for (const auto& entry : *entries) {
            std::string path = KestlyPath::appendingComponent(folder, entry.name);
            if (found.size() < rule.maximumResults && rule.keeps(entry.name, path)) found.push_back(path);
            if (entry.isFolder) toVisit.push_back(std::move(path));
        }
    }
    // Folders that overlap (a watched root inside the music folder) find a file twice.
    const bool reachedMaximum = found.size() >= rule.maximumResults;
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    if (foldersRead > 0 || cancelled) return {std::move(found), std::nullopt, reachedMaximum};
    const std::string why = folders.empty() ? "no folder to scan" : "no folder to scan could be read: " + unreadable;
    return {std::move(found), DCIError(kDCIMetadataQueryErrorDomain, kDCIMetadataQueryNoFolderToScan, why)};
}

class ScanGathering : public DCIMetadataGathering {
public:
    ScanGathering(std::vector<std::string> folders, DCICandidateRule rule, std::stop_token stop, Completion completion)
        : onStop_(std::move(stop), [this] { cancelled_ = true; }) {
        std::weak_ptr<const int> alive = alive_;
        worker_ = std::thread([this, alive, folders = std::move(folders), rule = std::move(rule),
                               completion = std::move(completion)]() mutable {
            auto gathered = scan(folders, rule, cancelled_);
            if (cancelled_) return;
            // Runs only while this gathering lives: it is destroyed on the main thread, where
            // this closure runs, so the check cannot race with the destruction. The thread is
            // joined there, so a finished search holds no thread while it waits to be stopped.
            DCIRunLoop::main().performAsync(
                [this, alive, gathered = std::move(gathered), completion = std::move(completion)] {
                    if (!alive.lock()) return;
                    worker_.join();
                    completion(gathered);
                });
        });
    }

    ~ScanGathering() override {
        cancelled_ = true;
        if (worker_.joinable()) worker_.join();
    }

private:
    const std::shared_ptr<const int> alive_ = std::make_shared<const int>(0);
    std::atomic<bool> cancelled_{false};
    std::stop_callback<std::function<void()>> onStop_;
    std::thread worker_;  // last: starts once the members it uses exist
};

}  // namespace

std::unique_ptr<DCIMetadataGathering> DCIStartScanGathering(const std::vector<std::string>& folders,
                                                            DCICandidateRule rule, std::stop_token stop,
                                                            DCIMetadataGathering::Completion completion) {
    return std::make_unique<ScanGathering>(folders, std::move(rule), std::move(stop), std::move(completion));
}
