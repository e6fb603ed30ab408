#include "CoreKestly/SampleFinder/DCISampleFinder.h"

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/FileSystem/DCIFileQueries.h"
#include "CoreKestly/Platform/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/DCIRunLoop.h"
#include "CoreKestly/SampleFinder/DCIAudioFile.h"

#include <sys/stat.h>

#include <algorithm>
#include <stop_token>

namespace {

// No file name is longer than 255 bytes; a pattern with wildcards may be, but not by this much.
constexpr size_t kLongestName = 1024;

bool hasSize(const std::string& path, uint64_t size) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && static_cast<uint64_t>(status.st_size) == size;
}

bool hasDuration(const std::string& path, uint64_t duration) {
    uint64_t frames = 0, sampleRate = 0;
    return DCIAudioFile::numberOfSamples(frames, sampleRate, path) && frames == duration;
}

}  // namespace

std::shared_ptr<DCISampleFinder> DCISampleFinder::initWithFileQueries(std::weak_ptr<DCIFileQueries> fileQueries,
                                                                      DCIMetadataQuerySettings settings) {
    return std::shared_ptr<DCISampleFinder>(new DCISampleFinder(std::move(fileQueries), std::move(settings)));
}

DCISampleFinder::DCISampleFinder(std::weak_ptr<DCIFileQueries> fileQueries, DCIMetadataQuerySettings settings)
    : fileQueries_(std::move(fileQueries)), metadataSearch_(std::make_shared<DCIMetadataQuery>()),
      settings_(std::move(settings)) {}

std::optional<std::string> DCISampleFinder::pathForSampleWithName(const std::optional<std::string>& name,
                                                                  const std::optional<std::string>& sasID,
                                                                  const std::optional<std::string>& sha,
                                                                  uint64_t fileSize, uint64_t duration,
                                                                  std::optional<DCIError>* failure) {
    if (!name || name->empty()) return std::nullopt;
    // The length first, so that no refusal logs a name of any length.
    if (name->size() > kLongestName) {
        DCLogError("DCISampleFinder: refused to search for a name of %lu bytes.", name->size());
        return std::nullopt;
    }
    if (DCIIsMainThread()) {
        DCLogError("DCISampleFinder: refused to search for %@ on the main thread, whose loop the search needs.",
                   DCILoggedText(*name));
        return std::nullopt;
    }
    std::lock_guard searching(searchMutex_);
    const auto candidates = gatherCandidates(fileNameForSampleName(*name));
    auto found = chooseCandidate(candidates.paths, sasID, sha, fileSize, duration);
    if (candidates.failure) {
        DCLogError("DCISampleFinder: could not search everywhere for %@: %@", DCILoggedText(*name),
                   DCILoggedText(candidates.failure->localizedDescription()));
    }
    if (failure) *failure = found ? std::nullopt : candidates.failure;
    return found;
}

std::string DCISampleFinder::fileNameForSampleName(std::string name) {
    std::replace(name.begin(), name.end(), '/', ':');
    return name;
}

DCIMetadataGathered DCISampleFinder::gatherCandidates(const std::string& name) {
    uint64_t search;
    {
        std::lock_guard lock(gathered_->mutex);
        search = ++gathered_->search;
        gathered_->results.reset();
    }
    // Handed to the main loop without waiting for it, so a loop that does not run makes the
    // search end after its timeout rather than hang; a start that runs after the stop below
    // starts nothing.
    std::stop_source stop;
    DCIRunLoop::main().performAsync([query = metadataSearch_, gathered = gathered_, search, name,
                                     settings = querySettings(), stop = stop.get_token()] {
        if (stop.stop_requested()) return;
        query->setSettings(settings);
        query->startQuery(
            name, [gathered, search](const DCIMetadataGathered& results) {
                initialGatherComplete(*gathered, search, results);
            },
            stop);
    });
    const auto timeout = gatherTimeout();
    std::optional<DCIMetadataGathered> candidates;
    {
        std::unique_lock lock(gathered_->mutex);
        gathered_->ready.wait_for(lock, timeout, [&] { return gathered_->results.has_value(); });
        candidates = std::move(gathered_->results);
        gathered_->results.reset();
        ++gathered_->search;  // a finish still to come belongs to no search
    }
    // Kills and reaps the locate program here and now: the host may never turn its loop again
    // once this search has answered. The stop queued behind it releases the rest.
    stop.request_stop();
    DCIRunLoop::main().performAsync([query = metadataSearch_] { query->stopQuery(); });
    if (candidates) return std::move(*candidates);
    return {{}, DCIError(kDCISampleFinderErrorDomain, kDCISampleFinderTimedOut,
                         "no candidates were gathered within " + std::to_string(timeout.count()) + " ms")};
}

void DCISampleFinder::initialGatherComplete(Gathered& gathered, uint64_t search,
                                            const DCIMetadataGathered& results) {
    std::lock_guard lock(gathered.mutex);
    if (gathered.search != search) return;
    gathered.results = results;
    gathered.ready.notify_all();
}

std::optional<std::string> DCISampleFinder::chooseCandidate(const std::vector<std::string>& candidates,
                                                            const std::optional<std::string>& sasID,
                                                            const std::optional<std::string>& sha,
                                                            uint64_t fileSize, uint64_t duration) const {
    if (sasID || sha) {
        const auto queries = fileQueries_.lock();
        if (!queries) return std::nullopt;
        for (const auto& candidate : candidates) {
            const auto candidateSasID = queries->SasIDForFileAtPath(candidate);
            const auto candidateSHA = queries->SHAForFileAtPath(candidate);
            if ((sasID && candidateSasID == sasID) || (sha && candidateSHA == sha)) return candidate;
        }
        return std::nullopt;
    }
    const auto first = [&](auto matches) -> std::optional<std::string> {
        const auto found = std::find_if(candidates.begin(), candidates.end(), matches);
        return found == candidates.end() ? std::nullopt : std::optional(*found);
    };
    if (fileSize != 0) return first([&](const std::string& path) { return hasSize(path, fileSize); });
    if (duration != 0) return first([&](const std::string& path) { return hasDuration(path, duration); });
    return std::nullopt;
}

DCIMetadataQuerySettings DCISampleFinder::querySettings() const {
    std::lock_guard lock(settingsMutex_);
    return settings_;
}

void DCISampleFinder::setQuerySettings(DCIMetadataQuerySettings settings) {
    std::lock_guard lock(settingsMutex_);
    settings_ = std::move(settings);
}

std::chrono::milliseconds DCISampleFinder::gatherTimeout() const {
    std::lock_guard lock(settingsMutex_);
    return gatherTimeout_;
}

void DCISampleFinder::setGatherTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(settingsMutex_);
    gatherTimeout_ = timeout;
}
