#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

class DCIFileNamePattern;
struct DCIMetadataGathered;

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

/// A gathering that completes with `gathered` on the next turn of the main loop.
std::unique_ptr<DCIMetadataGathering> DCIStartFinishedGathering(DCIMetadataGathered gathered,
                                                                DCIMetadataGathering::Completion completion);

/// Runs `program` on `database` with `glob` (in any case when `ignoresCase`), for the files
/// whose name matches `pattern`. A program that
/// cannot be started, or fails, completes with the failure. A stop requested through `stop`, from any thread, kills
/// and reaps the program before it returns.
std::unique_ptr<DCIMetadataGathering> DCIStartLocateGathering(const std::string& program, const std::string& database,
                                                              const std::string& glob, bool ignoresCase,
                                                              const DCIFileNamePattern& pattern, size_t maximumResults,
                                                              std::stop_token stop,
                                                              DCIMetadataGathering::Completion completion);

/// Walks `folders` on a thread of its own for the entries whose name matches `pattern`. The
/// walk fails when none of the folders can be read. A stop requested through `stop` ends it.
std::unique_ptr<DCIMetadataGathering> DCIStartScanGathering(const std::vector<std::string>& folders,
                                                            const DCIFileNamePattern& pattern, size_t maximumResults,
                                                            std::stop_token stop,
                                                            DCIMetadataGathering::Completion completion);
