#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIError.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

class DCIMetadataGathering;

/// Where a metadata query finds its candidates.
enum class DCIMetadataQueryBackend {
    /// The locate database when there is one (and the locate program), with the folder scan
    /// beside it for what the database has not seen yet (files saved today, /media); else the
    /// folder scan alone.
    automatic,
    /// The machine's file-name index, searched by the `plocate` program.
    locateDatabase,
    /// A walk of the configured folders, for machines without a locate database.
    folderScan,
};

/// How a metadata query searches.
struct KESTLY_EXPORT DCIMetadataQuerySettings {
    DCIMetadataQueryBackend backend = DCIMetadataQueryBackend::automatic;
    /// The locate database to search; empty for the machine's own.
    std::string locateDatabasePath;
    /// The locate program, run with an argument vector and no shell.
    std::string locateProgramPath = "/usr/bin/plocate";
    /// The folders the scan walks, each of which may be a link, with no link below them
    /// followed; empty for the user's music folder.
    std::vector<std::string> scanFolders;
    /// A search gathers at most this many candidates, so that a name like "*" costs a bounded
    /// time and memory; the rest are left out.
    size_t maximumResults = 10000;

    /// The machine's own locate database.
    static const std::string& systemLocateDatabasePath();
    /// $XDG_MUSIC_DIR as user-dirs.dirs sets it, else ~/Music.
    static std::string userMusicFolder();
    /// What `backend` comes to on this machine now: itself, but for `automatic`, which stays
    /// `automatic` (the database searched, the scan beside it) when there is a locate database
    /// and the program, and is `folderScan` otherwise.
    DCIMetadataQueryBackend resolvedBackend() const;
};

/// The domain of a metadata query's failures, with its codes.
inline constexpr const char* kDCIMetadataQueryErrorDomain = "DCIMetadataQuery";
/// The locate program could not be run, or failed (an unreadable or corrupt database).
inline constexpr int64_t kDCIMetadataQueryLocateFailed = 1;
/// None of the folders to scan could be read.
inline constexpr int64_t kDCIMetadataQueryNoFolderToScan = 2;

/// What a search gathered.
struct KESTLY_EXPORT DCIMetadataGathered {
    /// Full paths, sorted bytewise.
    std::vector<std::string> paths;
    /// Why the search could not look everywhere it should have; `paths` then holds what it
    /// found elsewhere. A failed search that found nothing is no proof that nothing is there.
    std::optional<DCIError> failure;
    /// Whether the search stopped at `maximumResults`, leaving further candidates out.
    bool reachedMaximum = false;
};

/// How far a search looks through the locate database.
enum class DCIMetadataQueryReach {
    /// Every name that matches once folded: plocate reads its whole database (0.5 s and more
    /// per million paths).
    foldedNames,
    /// The names spelt as given, in any case, composed or decomposed, which plocate looks up
    /// in its index in milliseconds; a name in another spelling ("Cafe" for "Café") is missed.
    givenSpellings,
};

/// What one search keeps besides the name.
struct KESTLY_EXPORT DCIMetadataQueryOptions {
    DCIMetadataQueryReach reach = DCIMetadataQueryReach::foldedNames;
    /// A check each candidate must pass before it counts toward `maximumResults`, so that the
    /// cap counts candidates still in the running; none when empty. It runs on the main thread
    /// for the locate backend and on the scan's thread: it must be quick, and safe on any thread.
    std::function<bool(const std::string& path)> acceptsCandidate;
};

/// A search of the machine's files by whole file name, the source of a sample finder's
/// candidates. The name's `?` matches any one character and `*` any run; case, diacritics and
/// compatibility forms are ignored ("CAFE.wav" finds "Café.wav", its é one character or two).
/// Candidates are full paths, sorted bytewise so that a search answers them in the same order
/// every time.
///
/// Gathering is asynchronous and never blocks the main loop on the locate program: its output
/// is read through a non-blocking pipe watched by the main loop, and a scan walks its folders
/// on a thread of its own. The end of gathering is signalled on the main loop. The query logs
/// nothing: what went wrong comes back in `DCIMetadataGathered::failure`.
///
/// Threads: `startQuery`, `stopQuery` and `results` belong to the main thread (calls from any
/// other thread are refused, answering false), and the query is destroyed there, or anywhere
/// once no gathering is under way.
class KESTLY_EXPORT DCIMetadataQuery {
public:
    using FinishHandler = std::function<void(const DCIMetadataGathered& gathered)>;

    explicit DCIMetadataQuery(DCIMetadataQuerySettings settings = {});
    ~DCIMetadataQuery();
    DCIMetadataQuery(const DCIMetadataQuery&) = delete;
    DCIMetadataQuery& operator=(const DCIMetadataQuery&) = delete;

    /// Takes effect at the next `startQuery`.
    void setSettings(DCIMetadataQuerySettings settings) { settings_ = std::move(settings); }
    const DCIMetadataQuerySettings& settings() const { return settings_; }

    /// Stops any search under way and starts gathering the files named `name`. `finished` runs
    /// once on the main loop with the candidates, unless the search is stopped first. A
    /// backend that cannot run (no locate program, no database) finishes with its failure.
    /// Answers false, starting nothing, off the main thread.
    ///
    /// A stop requested through `stop` ends the gathering from any thread, whether the main
    /// loop turns again or not: the locate program is killed and reaped before `request_stop`
    /// returns. `stopQuery` must still follow on the main thread.
    bool startQuery(const std::string& name, FinishHandler finished, std::stop_token stop = {},
                    DCIMetadataQueryOptions options = {});
    /// Stops the search: its gathering ends (the locate program is killed and reaped, the
    /// scan thread joined) and `finished` is not called for it. Clears `results`. Answers
    /// false, stopping nothing, off the main thread.
    bool stopQuery();
    /// Whether a search has started and not yet finished gathering.
    bool isGathering() const { return gathering_ != nullptr && !gathered_; }
    /// The candidates of the last search that finished gathering and was not stopped.
    const std::vector<std::string>& results() const { return results_.paths; }
    /// Why the last search that finished gathering could not look everywhere, if it could not.
    const std::optional<DCIError>& failure() const { return results_.failure; }

private:
    void finishGathering(DCIMetadataGathered results);

    DCIMetadataQuerySettings settings_;
    FinishHandler finished_;
    DCIMetadataGathered results_;
    bool gathered_ = false;
    std::unique_ptr<DCIMetadataGathering> gathering_;  // last: its callbacks use the members above
};
