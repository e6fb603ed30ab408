// Several gatherings run side by side as one: the locate database's spellings of a name, and
// the folder scan beside the database. Their candidates are merged once the last is in.

#include "CoreKestly/Platform/Search/DCIMetadataGatheringInternal.h"
#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"

#include <algorithm>

namespace {

class MergedGathering : public DCIMetadataGathering {
public:
    MergedGathering(size_t maximumResults, Completion completion)
        : maximumResults_(maximumResults), completion_(std::move(completion)) {}

    void start(const std::vector<DCIGatheringStart>& starts) {
        parts_.resize(starts.size());
        for (size_t i = 0; i < starts.size(); ++i)
            parts_[i] = starts[i]([this](DCIMetadataGathered gathered) { take(std::move(gathered)); });
    }

private:
    // The last thing this object does once every part is in: the completion may destroy it.
    void take(DCIMetadataGathered gathered) {
        merged_.reachedMaximum = merged_.reachedMaximum || gathered.reachedMaximum;
        merged_.paths.insert(merged_.paths.end(), gathered.paths.begin(), gathered.paths.end());
        if (gathered.failure) failures_.push_back(std::move(*gathered.failure));
        else ++succeeded_;
        if (++finished_ < parts_.size()) return;
        auto& paths = merged_.paths;
        std::sort(paths.begin(), paths.end());
        paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
        if (paths.size() > maximumResults_) {
            paths.resize(maximumResults_);
            merged_.reachedMaximum = true;
        }
        // A music folder the user never made is no failure beside a database that was searched.
        for (auto& failure : failures_) {
            if (failure.code() != kDCIMetadataQueryNoFolderToScan || succeeded_ == 0) {
                merged_.failure = std::move(failure);
                break;
            }
        }
        auto completion = std::move(completion_);
        completion(std::move(merged_));
    }

    const size_t maximumResults_;
    Completion completion_;
    DCIMetadataGathered merged_;
    std::vector<DCIError> failures_;
    size_t finished_ = 0, succeeded_ = 0;
    std::vector<std::unique_ptr<DCIMetadataGathering>> parts_;  // last: their callbacks use the above
};

}  // namespace

std::unique_ptr<DCIMetadataGathering> DCIStartMergedGathering(const std::vector<DCIGatheringStart>& starts,
                                                              size_t maximumResults,
                                                              DCIMetadataGathering::Completion completion) {
    if (starts.size() == 1) return starts[0](std::move(completion));
    auto gathering = std::make_unique<MergedGathering>(maximumResults, std::move(completion));
    gathering->start(starts);
    return gathering;
}
