#include "CoreKestly/SampleFinder/DCISampleFinder.h"

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/FileSystem/DCIFileQueries.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/SampleFinder/DCIAudioFile.h"
#include "CoreKestly/SampleFinder/DCIStoppableHashInternal.h"

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <iterator>
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

// The checks that cost a look at the file, made while the candidates are gathered so that
// their cap counts only those still in the running: the size whenever it is known (so that
// only files of the right size are hashed), else the length when no identifier decides.
std::function<bool(const std::string&)> cheapCheck(bool hasIdentifier, uint64_t size, uint64_t duration) {
    if (size != 0) return [size](const std::string& path) { return hasSize(path, size); };
    if (duration != 0 && !hasIdentifier) return [duration](const std::string& path) { return hasDuration(path, duration); };
    return {};
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
    // Nothing could confirm a candidate.
    if (!sasID && !sha && fileSize == 0 && duration == 0) return std::nullopt;
    std::lock_guard searching(searchMutex_);
    const std::stop_token stop = [&] {
        std::lock_guard lock(stopMutex_);
        searchStop_ = std::stop_source();
        return searchStop_.get_token();
    }();
    const std::string fileName = fileNameForSampleName(*name);
    const auto settings = querySettings();
    DCIMetadataQueryOptions options{DCIMetadataQueryReach::givenSpellings, cheapCheck(sasID || sha, fileSize, duration)};
    // First the name as given, which plocate looks up in its index; only when that confirms
    // nothing, every name that folds like it, which plocate reads its whole database for.
    const auto spelt = gatherCandidates(fileName, settings, options, stop);
    auto found = chooseCandidate(spelt.paths, sasID, sha, fileSize, duration, stop);
    auto why = spelt.failure;
    bool reachedMaximum = spelt.reachedMaximum;
    if (!found && !why && settings.resolvedBackend() != DCIMetadataQueryBackend::folderScan) {
        auto locateOnly = settings;
        locateOnly.backend = DCIMetadataQueryBackend::locateDatabase;
        options.reach = DCIMetadataQueryReach::foldedNames;
        const auto folded = gatherCandidates(fileName, locateOnly, options, stop);
        std::vector<std::string> unchecked;
        std::set_difference(folded.paths.begin(), folded.paths.end(), spelt.paths.begin(), spelt.paths.end(),
                            std::back_inserter(unchecked));
        found = chooseCandidate(unchecked, sasID, sha, fileSize, duration, stop);
        why = folded.failure;
        reachedMaximum = reachedMaximum || folded.reachedMaximum;
    }
    if (stop.stop_requested()) {  // asked for, so not logged
        if (failure) *failure = DCIError(kDCISampleFinderErrorDomain, kDCISampleFinderStopped, "the search was stopped");
        return std::nullopt;
    }
    if (reachedMaximum) {
        DCLogInfo("DCISampleFinder: the search for %@ stopped at %lu candidates; files past them were not looked at.",
                  DCILoggedText(*name), static_cast<unsigned long>(settings.maximumResults));
    }
    if (why) {
        DCLogError("DCISampleFinder: could not search everywhere for %@: %@", DCILoggedText(*name),
                   DCILoggedText(why->localizedDescription()));
    }
    if (failure) *failure = found ? std::nullopt : why;
    return found;
}

std::string DCISampleFinder::fileNameForSampleName(std::string name) {
    std::replace(name.begin(), name.end(), '/', ':');
    return name;
}

void DCISampleFinder::stopSearching() {
    std::lock_guard lock(stopMutex_);
    searchStop_.request_stop();
}

DCIMetadataGathered DCISampleFinder::gatherCandidates(const std::string& name, const DCIMetadataQuerySettings& settings,
                                                      const DCIMetadataQueryOptions& options,
                                                      std::stop_token searchStop) {
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
    const std::stop_callback stopsWithSearch(searchStop, [&stop] { stop.request_stop(); });
    DCIRunLoop::main().performAsync([query = metadataSearch_, gathered = gathered_, search, name, settings, options,
                                     stop = stop.get_token()] {
        if (stop.stop_requested()) return;
        query->setSettings(settings);
        query->startQuery(
            name, [gathered, search](const DCIMetadataGathered& results) {
                initialGatherComplete(*gathered, search, results);
            },
            stop, options);
    });
    const auto timeout = gatherTimeout();
    std::optional<DCIMetadataGathered> candidates;
    {
        std::unique_lock lock(gathered_->mutex);
        gathered_->ready.wait_for(lock, searchStop, timeout, [&] { return gathered_->results.has_value(); });
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
                                                            uint64_t fileSize, uint64_t duration,
                                                            std::stop_token stop) const {
    if (sasID || sha) {
        const auto queries = fileQueries_.lock();
        if (!queries) return std::nullopt;
        for (const auto& candidate : candidates) {
            if (stop.stop_requested()) return std::nullopt;
            const auto candidateSasID = queries->SasIDForFileAtPath(candidate);
            // Hashed here, not by the file manager, so that a stop ends a planted huge file's hash.
            const auto candidateSHA = sha ? DCISHA256UnlessStopped(candidate, stop) : std::nullopt;
            if ((sasID && candidateSasID == sasID) || (sha && candidateSHA == sha)) return candidate;
        }
        return std::nullopt;
    }
    const auto first = [&](auto matches) -> std::optional<std::string> {
        const auto found = std::find_if(candidates.begin(), candidates.end(),
                                        [&](const std::string& path) { return !stop.stop_requested() && matches(path); });
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
