#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <chrono>
#include <condition_variable>
#include <stop_token>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class DCIFileQueries;

/// The domain of the finder's own failures, and its codes: no answer within the wait, and a
/// search ended by `stopSearching`.
inline constexpr const char* kDCISampleFinderErrorDomain = "DCISampleFinder";
inline constexpr int64_t kDCISampleFinderTimedOut = 1;
inline constexpr int64_t kDCISampleFinderStopped = 2;

/// Finds a sample anywhere on the machine from what the service knows of it: its file name,
/// and its `sasID`, SHA-256, size in bytes or length in sample frames. The machine's file-name
/// index (`DCIMetadataQuery`) gives the candidates, files of that name, first as the name is
/// spelt and then, when none of those is confirmed, in every spelling that folds like it; the
/// first candidate that agrees with the other facts is the answer.
///
/// Threads: a search runs on the calling thread, which must not be the main thread: the
/// query starts, gathers and stops on the main loop, which must keep running meanwhile. A
/// call on the main thread is refused with a log line. Searches on one finder run one at a
/// time; settings may be changed from any thread.
class KESTLY_EXPORT DCISampleFinder : public DCIObject {
public:
    /// How long a search waits at most for the index to gather its candidates. A search ends
    /// as soon as they are in, so the figure costs nothing when the file is found; it is the
    /// limit for a busy machine. A locate search of a 1,000,000-path database that has to
    /// compare every name takes 0.45 s on an idle machine and twice that on a loaded one, and
    /// a walk of a large music folder with a cold disk cache takes seconds.
    static constexpr std::chrono::milliseconds kDefaultGatherTimeout{10'000};

    /// A finder that asks `fileQueries` for the identifier and hash of each candidate. It is
    /// held weakly, since the file manager that answers them owns the finder; once it is gone,
    /// searches by identifier or hash find nothing.
    static std::shared_ptr<DCISampleFinder> initWithFileQueries(std::weak_ptr<DCIFileQueries> fileQueries,
                                                                DCIMetadataQuerySettings settings = {});
    DCISampleFinder(const DCISampleFinder&) = delete;
    DCISampleFinder& operator=(const DCISampleFinder&) = delete;

    /// The full path of the first candidate named `name` (each "/" in it read as ":", the way
    /// a file name keeps it) that matches by the first rule that applies, or nothing:
    /// 1. `sasID` or `sha` given: its `sasID` equals `sasID`, or its SHA-256 equals `sha`;
    ///    when none does, nothing, whatever the size or the duration;
    /// 2. else `fileSize` not 0: its size in bytes equals `fileSize`;
    /// 3. else `duration` not 0: its number of sample frames (`DCIAudioFile`) equals it;
    /// 4. else nothing.
    /// Nothing as well for no name, and when the search failed: the index has not gathered
    /// within `gatherTimeout()`, or the locate program or the scan could not search. A failure
    /// is logged, and set in `failure` when one is given, so a caller can tell "not there"
    /// from "could not look"; a search that found its file anyway answers it.
    std::optional<std::string> pathForSampleWithName(const std::optional<std::string>& name,
                                                     const std::optional<std::string>& sasID,
                                                     const std::optional<std::string>& sha, uint64_t fileSize,
                                                     uint64_t duration, std::optional<DCIError>* failure = nullptr);

    /// Ends the search under way, if any, from any thread: its locate program is killed, a
    /// hash under way ends within one read of 64 KiB, and the search answers nothing, with the
    /// failure `kDCISampleFinderStopped`. Candidates are hashed by the finder itself for that.
    void stopSearching();

    /// The file name a sample called `name` has on disk: a file name cannot hold "/", so
    /// each one is kept as ":".
    static std::string fileNameForSampleName(std::string name);

    DCIMetadataQuerySettings querySettings() const;
    /// Takes effect at the next search.
    void setQuerySettings(DCIMetadataQuerySettings settings);
    std::chrono::milliseconds gatherTimeout() const;
    void setGatherTimeout(std::chrono::milliseconds timeout);

private:
    // What the main loop hands over to the searching thread.
    struct Gathered {
        mutable std::mutex mutex;
        std::condition_variable_any ready;
        uint64_t search = 0;  // the number of the search under way; a finish of another is stale
        std::optional<DCIMetadataGathered> results;
    };

    DCISampleFinder(std::weak_ptr<DCIFileQueries> fileQueries, DCIMetadataQuerySettings settings);

    /// The candidates named `name` (a file name), with a failure when gathering took too long.
    DCIMetadataGathered gatherCandidates(const std::string& name, const DCIMetadataQuerySettings& settings,
                                         const DCIMetadataQueryOptions& options, std::stop_token stop);
    /// The end of gathering, on the main loop: hands `results` over to search number `search`.
    static void initialGatherComplete(Gathered& gathered, uint64_t search, const DCIMetadataGathered& results);
    std::optional<std::string> chooseCandidate(const std::vector<std::string>& candidates,
                                               const std::optional<std::string>& sasID,
                                               const std::optional<std::string>& sha, uint64_t fileSize,
                                               uint64_t duration, std::stop_token stop) const;

    const std::weak_ptr<DCIFileQueries> fileQueries_;
    // Used on the main loop only; shared with the closures that run there, the last of which
    // may outlive the finder.
    const std::shared_ptr<DCIMetadataQuery> metadataSearch_;
    const std::shared_ptr<Gathered> gathered_ = std::make_shared<Gathered>();
    std::mutex searchMutex_;  // one search at a time
    std::mutex stopMutex_;
    std::stop_source searchStop_;  // the search under way, or the last one

    mutable std::mutex settingsMutex_;
    DCIMetadataQuerySettings settings_;
    std::chrono::milliseconds gatherTimeout_ = kDefaultGatherTimeout;
};
