#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

class DCIFileNamePattern;

/// One search's gathering of candidates, under way from its making until its completion runs.
/// Made, used and destroyed on the main thread. Destroying it ends the work at once and its
/// completion is then never called.
class DCIMetadataGathering {
public:
    /// Called on the main loop, at most once, with the paths found, sorted. The gathering may
    /// be destroyed from inside it.
    using Completion = std::function<void(std::vector<std::string> paths)>;

    virtual ~DCIMetadataGathering() = default;

protected:
    DCIMetadataGathering() = default;
};

/// Runs `program` on `database` for the files whose name matches `pattern`; nullptr, logged,
/// when the program cannot be started. A stop requested through `stop`, from any thread, kills
/// and reaps the program before it returns.
std::unique_ptr<DCIMetadataGathering> DCIStartLocateGathering(const std::string& program, const std::string& database,
                                                              const DCIFileNamePattern& pattern, size_t maximumResults,
                                                              std::stop_token stop,
                                                              DCIMetadataGathering::Completion completion);

/// Walks `folders` on a thread of its own for the entries whose name matches `pattern`; with
/// no folders it completes, with no paths, on the next turn of the main loop. A stop requested
/// through `stop` ends the walk.
std::unique_ptr<DCIMetadataGathering> DCIStartScanGathering(const std::vector<std::string>& folders,
                                                            const DCIFileNamePattern& pattern, size_t maximumResults,
                                                            std::stop_token stop,
                                                            DCIMetadataGathering::Completion completion);
