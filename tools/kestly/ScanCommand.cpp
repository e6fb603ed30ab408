// kestly scan: builds and hashes the tree of a folder through the two SHA caches, as the file
// manager does when it starts watching, and tells what it found and what it had to read.

#include "KestlyCommand.h"

#include "CachePaths.h"
#include "HashingProgress.h"
#include "TerminalText.h"

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <sys/stat.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct ScanOptions {
    std::string root;
    DCIFileKinds kinds;
    std::string primaryCache;
    std::string secondaryCache;
    bool json = false;
};

// The files the caches could not answer for, which were read, and their bytes.
struct ReadCounts {
    std::atomic<uint64_t> files{0};
    std::atomic<uint64_t> bytes{0};
};

// Whether the calculator ran on this thread during the current question: a miss.
thread_local bool readOnThisThread = false;

// A cache calls its sasID calculator once per miss, right after reading the file: the place to
// count what was read. The service's identifiers are not known here, so it answers nothing.
DCISasIDCalculator countingCalculator(std::shared_ptr<ReadCounts> reads) {
    return [reads](const std::string& path) -> std::optional<std::string> {
        struct stat status;
        if (stat(path.c_str(), &status) == 0) reads->bytes += static_cast<uint64_t>(status.st_size);
        ++reads->files;
        readOnThisThread = true;
        return std::nullopt;
    };
}

// Passes the tree's questions on to the caches, counting the hashes they answered without
// reading the file, and, once the scan has taken more than a second, shows how far it has
// come: entries listed, then files and bytes hashed, the rate of reading and the time left.
// Hashing asks from several threads at once.
class MonitoredQueries : public DCIFileQueries {
public:
    explicit MonitoredQueries(std::shared_ptr<DCIFileQueries> queries)
        : queries_(std::move(queries)), showsProgress_(showsProgressAndNotices()) {}

    uint64_t cacheHits() const { return cacheHits_; }
    /// The files about to be hashed.
    void setFilesToHash(const std::vector<std::shared_ptr<DCIFileObject>>& files) {
        filesToHash_ = files.size();
        for (const auto& file : files) bytesToHash_ += file->stamp().size;
        hashingStart_ = Clock::now();
    }
    /// Clears the progress line, so that what follows starts on a clean line.
    void endProgress() const {
        if (showsProgress_ && shown_) std::fputs("\r\033[K", stderr);
    }

    bool isFileOfInterest(const std::string& path) override {
        ++entriesSeen_;
        showProgress([&] { std::fprintf(stderr, "\rkestly: scanning, %zu entries\033[K", entriesSeen_.load()); });
        return queries_->isFileOfInterest(path);
    }

    std::optional<std::string> SHAForFileAtPath(const std::string& path) override {
        return queries_->SHAForFileAtPath(path);
    }

    std::optional<std::string> SasIDForFileAtPath(const std::string& path) override {
        return queries_->SasIDForFileAtPath(path);
    }

    // What the tree asks of every file it hashes.
    DCIFileIdentifiers identifiersForFile(const std::string& path, const DCIFileStamp& stamp) override {
        readOnThisThread = false;
        auto identifiers = queries_->identifiersForFile(path, stamp);
        if (identifiers.sha && !readOnThisThread) ++cacheHits_;
        ++filesHashed_;
        bytesHashed_ += stamp.size;
        showProgress([&] {
            std::fprintf(stderr, "\rkestly: %s\033[K",
                         hashingProgress(filesHashed_, filesToHash_, bytesHashed_, bytesToHash_,
                                         Clock::now() - hashingStart_).c_str());
        });
        return identifiers;
    }

private:
    template <class Print>
    void showProgress(Print print) {
        if (!showsProgress_) return;
        const std::unique_lock lock(progressMutex_, std::try_to_lock);
        if (!lock) return;  // another thread is showing it
        const auto now = Clock::now();
        if (now - start_ < std::chrono::seconds(1) || now - lastShown_ < std::chrono::milliseconds(100)) return;
        lastShown_ = now;
        shown_ = true;
        print();
        std::fflush(stderr);
    }

    const std::shared_ptr<DCIFileQueries> queries_;
    const bool showsProgress_;
    const Clock::time_point start_ = Clock::now();
    std::mutex progressMutex_;  // guards the two members below
    Clock::time_point lastShown_;
    bool shown_ = false;
    Clock::time_point hashingStart_;
    std::atomic<size_t> entriesSeen_{0};
    std::atomic<size_t> filesHashed_{0};
    size_t filesToHash_ = 0;
    uint64_t bytesToHash_ = 0;
    std::atomic<uint64_t> bytesHashed_{0};
    std::atomic<uint64_t> cacheHits_{0};
};

struct ScanResult {
    std::vector<std::shared_ptr<DCIFolderObject>> folders;  // sorted by relative path
    std::vector<std::shared_ptr<DCIFileObject>> files;      // sorted by relative path
    std::vector<std::optional<std::string>> hashes;         // of `files`, in the same order
};

template <class Set>
std::vector<typename Set::value_type> sortedByRelativePath(const Set& set) {
    std::vector<std::pair<std::string, typename Set::value_type>> keyed;
    keyed.reserve(set.size());
    for (const auto& item : set) keyed.emplace_back(item->relativePath(), item);
    std::sort(keyed.begin(), keyed.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
    std::vector<typename Set::value_type> items;
    items.reserve(keyed.size());
    for (auto& [path, item] : keyed) items.push_back(std::move(item));
    return items;
}

void printJSON(const std::string& root, const ScanResult& result, uint64_t filesRead, uint64_t cacheHits) {
    nlohmann::ordered_json folders = nlohmann::ordered_json::array();
    for (const auto& folder : result.folders) folders.push_back(folder->relativePath());
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (size_t i = 0; i < result.files.size(); ++i) {
        const auto& file = result.files[i];
        files.push_back({
            {"path", file->relativePath()},
            {"sha256", result.hashes[i] ? nlohmann::ordered_json(*result.hashes[i]) : nlohmann::ordered_json(nullptr)},
            {"modified", file->modifiedDate().secondsSince1970()},
            {"created", file->createdDate().secondsSince1970()},
        });
    }
    const nlohmann::ordered_json document = {
        {"root", root}, {"folders", folders}, {"files", files}, {"hashed", filesRead}, {"cacheHits", cacheHits}};
    // File names are bytes, not always UTF-8: what JSON cannot carry is shown as U+FFFD.
    std::printf("%s\n", document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

int scan(const ScanOptions& options) {
    const auto standardRoot = absoluteStandardPath(options.root);
    struct stat rootStatus;
    if (!standardRoot || lstat(standardRoot->c_str(), &rootStatus) != 0) {
        // A relative root does not exist once the working folder is gone.
        std::fprintf(stderr, "kestly: %s: %s\n", options.root.c_str(), std::strerror(standardRoot ? errno : ENOENT));
        return 2;
    }
    const std::string& root = *standardRoot;
    CachePaths cachePaths{options.primaryCache, options.secondaryCache};
    if (const int status = completeCachePaths(cachePaths); status != 0) return status;

    const auto reads = std::make_shared<ReadCounts>();
    const auto primaryCache = DCISHACache::initWithCachePath(cachePaths.primary, countingCalculator(reads));
    const auto sampleCache = DCISHACache::initWithCachePath(cachePaths.secondary, countingCalculator(reads));
    const auto queries = std::make_shared<MonitoredQueries>(
        std::make_shared<DCICachedFileQueries>(options.kinds, primaryCache, sampleCache));

    const auto start = Clock::now();
    const auto tree = DCIFolderObject::initWithPath(root, nullptr, queries);
    if (!tree) {
        std::fprintf(stderr, "kestly: %s: vanished while being scanned\n", options.root.c_str());
        return 2;
    }
    ScanResult result{sortedByRelativePath(tree->gatherFolders()), sortedByRelativePath(tree->gatherFiles()), {}};
    queries->setFilesToHash(result.files);
    tree->generateHashes(std::max(1u, std::thread::hardware_concurrency()));
    queries->endProgress();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    primaryCache->persist();
    sampleCache->persist();

    int status = 0;
    for (const auto& file : result.files) {
        result.hashes.push_back(file->fileHash());
        if (!result.hashes.back()) {
            std::fprintf(stderr, "kestly: %s: cannot compute SHA-256\n", terminalText(file->absolutePath()).c_str());
            status = 1;
        }
    }
    if (options.json) {
        printJSON(root, result, reads->files, queries->cacheHits());
    } else {
        std::printf("folders: %zu, files: %zu, bytes hashed: %llu (%llu files read), cache hits: %llu, time: %.3f s\n",
                    result.folders.size(), result.files.size(), static_cast<unsigned long long>(reads->bytes),
                    static_cast<unsigned long long>(reads->files),
                    static_cast<unsigned long long>(queries->cacheHits()),
                    seconds);
    }
    return status;
}

}  // namespace

KestlyCommand addScanCommand(CLI::App& app) {
    auto options = std::make_shared<ScanOptions>();
    CLI::App* command = app.add_subcommand(
        "scan", "Build and hash the tree of files of interest under ROOT through the SHA caches, and summarise it");
    command->add_option("ROOT", options->root, "The folder to scan")->required();
    command->add_option("--primary-ext", options->kinds.primaryExtensions, "Extension of primary files, without dot")
        ->allow_extra_args(false);
    command->add_option("--primary-name", options->kinds.primaryFilenames, "Whole name of primary files")
        ->allow_extra_args(false);
    command->add_option("--secondary-ext", options->kinds.secondaryExtensions, "Extension of secondary files (samples)")
        ->allow_extra_args(false);
    command->add_option("--primary-cache", options->primaryCache,
                        "Cache file of primary files [$XDG_CACHE_HOME/kestly/primary.sqlite]");
    command->add_option("--secondary-cache", options->secondaryCache,
                        "Cache file of secondary files [$XDG_CACHE_HOME/kestly/secondary.sqlite]");
    command->add_flag("--json", options->json, "Print one JSON object with every folder and file instead");
    return {command, [options] { return scan(*options); }};
}
