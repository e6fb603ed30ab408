#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "CoreKestly/Platform/Search/DCIFileNamePatternInternal.h"

struct DCIMetadataGathered;

/// Which paths a gathering keeps, and how many at most: once `maximumResults` are in, it
/// stops and says so.
struct DCICandidateRule {
    DCIFileNamePattern pattern;
    /// A further check, none when empty; it runs wherever the gathering reads.
    std::function<bool(const std::string& path)> accepts;
    size_t maximumResults;

    /// Whether the entry at `path`, named `name`, is a candidate.
    bool keeps(std::string_view name, const std::string& path) const {
        return pattern.matches(name) && (!accepts || accepts(path));
    }
};

/// One search's gathering of candidates, under way from its making until its completion runs.
/// Made, used and destroyed on the main thread. Destroying it ends the work at once and its
/// completion is then never called.
class DCIMetadataGathering {
public:
    /// Called on the main loop, at most once, with the paths found, sorted, or why they could
    /// not be. The gathering may be destroyed from inside it.
    using Completion = std::function<void(DCIMetadataGathered gathered)>;

    virtual ~DCIMetadataGathering() = default;

protected:
    DCIMetadataGathering() = default;
};

/// Starts a gathering that completes through the completion it is given.
using DCIGatheringStart =
    std::function<std::unique_ptr<DCIMetadataGathering>(DCIMetadataGathering::Completion completion)>;

/// Runs the gatherings of `starts` side by side and completes once all have, with their paths
/// merged, sorted, without repeats and at most `maximumResults` of them, and the first failure
/// (a scan that found no folder counts as one only when nothing else searched).
std::unique_ptr<DCIMetadataGathering> DCIStartMergedGathering(const std::vector<DCIGatheringStart>& starts,
                                                              size_t maximumResults,
                                                              DCIMetadataGathering::Completion completion);

/// A gathering that completes with `gathered` on the next turn of the main loop.
std::unique_ptr<DCIMetadataGathering> DCIStartFinishedGathering(DCIMetadataGathered gathered,
                                                                DCIMetadataGathering::Completion completion);

/// How plocate reads its pattern.
enum class DCILocatePattern { glob, globIgnoringCase, regex };

/// Runs `program` on `database` with `pattern`, of that kind, for the files that `rule` keeps.
/// A program that cannot be started, or fails, completes with the failure. A stop requested
/// through `stop`, from any thread, kills and reaps the program before `request_stop` returns.
std::unique_ptr<DCIMetadataGathering> DCIStartLocateGathering(const std::string& program, const std::string& database,
                                                              const std::string& pattern, DCILocatePattern kind,
                                                              DCICandidateRule rule, std::stop_token stop,
                                                              DCIMetadataGathering::Completion completion);

/// Walks `folders` on a thread of its own for the entries that `rule` keeps. The
/// walk fails when none of the folders can be read. A stop requested through `stop` ends it.
std::unique_ptr<DCIMetadataGathering> DCIStartScanGathering(const std::vector<std::string>& folders,
                                                            DCICandidateRule rule, std::stop_token stop,
                                                            DCIMetadataGathering::Completion completion);
