#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"

#include "CoreKestly/Platform/Search/DCIFileNamePatternInternal.h"
#include "CoreKestly/Platform/Search/DCIMetadataGatheringInternal.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

const std::string& DCIMetadataQuerySettings::systemLocateDatabasePath() {
    static const std::string path = "/var/lib/plocate/plocate.db";
    return path;
}

std::string DCIMetadataQuerySettings::userMusicFolder() {
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    const std::string configFolder =
        configHome && configHome[0] == '/' ? configHome : KestlyPath::standardize("~/.config");
    // A line such as XDG_MUSIC_DIR="$HOME/Music"; an absolute path or one under $HOME.
    std::ifstream dirs(KestlyPath::appendingComponent(configFolder, "user-dirs.dirs"));
    const std::string prefix = "XDG_MUSIC_DIR=\"";
    for (std::string line; std::getline(dirs, line);) {
        if (!line.starts_with(prefix) || !line.ends_with('"')) continue;
        std::string value = line.substr(prefix.size(), line.size() - prefix.size() - 1);
        if (value.starts_with("$HOME/")) return KestlyPath::standardize("~/" + value.substr(6));
        if (value.starts_with('/')) return KestlyPath::standardize(value);
    }
    return KestlyPath::standardize("~/Music");
}

DCIMetadataQueryBackend DCIMetadataQuerySettings::resolvedBackend() const {
    if (backend != DCIMetadataQueryBackend::automatic) return backend;
    // The system database is usually readable only through the setgid program: its existence
    // is what counts.
    struct stat status;
    const std::string& database = locateDatabasePath.empty() ? systemLocateDatabasePath() : locateDatabasePath;
    const bool hasDatabase = stat(database.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    return hasDatabase && access(locateProgramPath.c_str(), X_OK) == 0 ? DCIMetadataQueryBackend::automatic
                                                                       : DCIMetadataQueryBackend::folderScan;
}

DCIMetadataQuery::DCIMetadataQuery(DCIMetadataQuerySettings settings) : settings_(std::move(settings)) {}

DCIMetadataQuery::~DCIMetadataQuery() = default;

bool DCIMetadataQuery::startQuery(const std::string& name, FinishHandler finished, std::stop_token stop,
                                  DCIMetadataQueryOptions options) {
    if (!DCIIsMainThread()) return false;
    stopQuery();
    finished_ = std::move(finished);
    const DCICandidateRule rule{DCIFileNamePattern(name), std::move(options.acceptsCandidate), settings_.maximumResults};
    const auto backend = settings_.resolvedBackend();
    std::vector<DCIGatheringStart> starts;
    if (backend != DCIMetadataQueryBackend::folderScan) {
        const std::string& database =
            settings_.locateDatabasePath.empty() ? settings_.systemLocateDatabasePath() : settings_.locateDatabasePath;
        // Each spelling is looked up in the index in any case; the folded expression spells
        // out every case itself; a pattern that is not UTF-8 is its own bytes, which plocate
        // refuses to look up in any case.
        const auto regex = options.reach == DCIMetadataQueryReach::foldedNames ? rule.pattern.foldedRegex() : std::nullopt;
        const auto kind = regex ? DCILocatePattern::regex
                          : rule.pattern.isUTF8() ? DCILocatePattern::globIgnoringCase : DCILocatePattern::glob;
        for (const auto& pattern : regex ? std::vector{*regex} : rule.pattern.spellingGlobs()) {
            starts.push_back([=, this](DCIMetadataGathering::Completion completion) {
                return DCIStartLocateGathering(settings_.locateProgramPath, database, pattern, kind, rule, stop,
                                               std::move(completion));
            });
        }
    }
    if (backend != DCIMetadataQueryBackend::locateDatabase) {
        const auto folders = settings_.scanFolders.empty() ? std::vector{settings_.userMusicFolder()}
                                                            : settings_.scanFolders;
        starts.push_back([=](DCIMetadataGathering::Completion completion) {
            return DCIStartScanGathering(folders, rule, stop, std::move(completion));
        });
    }
    gathering_ = DCIStartMergedGathering(
        starts, settings_.maximumResults, [this](DCIMetadataGathered gathered) { finishGathering(std::move(gathered)); });
    return true;
}

bool DCIMetadataQuery::stopQuery() {
    if (!DCIIsMainThread()) return false;
    gathering_.reset();
    gathered_ = false;
    results_ = {};
    finished_ = nullptr;
    return true;
}

void DCIMetadataQuery::finishGathering(DCIMetadataGathered results) {
    results_ = std::move(results);
    gathered_ = true;
    // The handler may stop or restart this query: it runs from copies of its own.
    if (auto finished = finished_) finished(DCIMetadataGathered(results_));
}

namespace {

class FinishedGathering : public DCIMetadataGathering {
public:
    FinishedGathering(DCIMetadataGathered gathered, Completion completion) {
        // Runs only while this gathering lives, which ends on the main thread where this runs.
        DCIRunLoop::main().performAsync([alive = std::weak_ptr<const int>(alive_), gathered = std::move(gathered),
                                         completion = std::move(completion)] {
            if (alive.lock()) completion(gathered);
        });
    }

private:
    const std::shared_ptr<const int> alive_ = std::make_shared<const int>(0);
};

}  // namespace

std::unique_ptr<DCIMetadataGathering> DCIStartFinishedGathering(DCIMetadataGathered gathered,
                                                                DCIMetadataGathering::Completion completion) {
    return std::make_unique<FinishedGathering>(std::move(gathered), std::move(completion));
}
