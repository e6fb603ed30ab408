// kestly find: finds a sample on this machine by name, as the file manager does for a sample
// the service knows, and confirms it by hash, size or length in frames.

#include "CachePaths.h"
#include "KestlyCommand.h"
#include "TerminalText.h"

#include "CoreKestly/FileSystem/DCIFileQueries.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"
#include "CoreKestly/SampleFinder/DCISampleFinder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

struct FindOptions {
    std::string name;
    std::optional<std::string> sasID;
    std::optional<std::string> sha;
    uint64_t size = 0;
    uint64_t duration = 0;
    std::string locateDatabase;
    std::vector<std::string> scopes;
    double waitSeconds = std::chrono::duration<double>(DCISampleFinder::kDefaultGatherTimeout).count();
    bool candidates = false;
    bool print0 = false;

    std::chrono::milliseconds wait() const {
        return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(waitSeconds));
    }
};

// Without a file manager, hashes are computed on the spot, and no file has a sasID: only the
// service's own identifiers would do.
class UncachedFileQueries : public DCIFileQueries {
public:
    bool isFileOfInterest(const std::string&) override { return true; }
    std::optional<std::string> SHAForFileAtPath(const std::string& path) override {
        return KSTSha256ForFileAtPath(path);
    }
    std::optional<std::string> SasIDForFileAtPath(const std::string&) override { return std::nullopt; }
};

// Decimal digits that fit in 64 bits: CLI11 alone would wrap "-1" around to a huge size.
CLI::Validator countValidator() {
    return CLI::Validator(
        [](const std::string& text) -> std::string {
            uint64_t value;
            const char* end = text.data() + text.size();
            const auto [stop, error] = std::from_chars(text.data(), end, value);
            return !text.empty() && error == std::errc() && stop == end ? "" : "takes a whole number from 0 to 2^64-1";
        },
        "COUNT");
}

bool isSHA256(const std::string& text) {
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](unsigned char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

// Names on disk may hold anything but "/" and NUL, escape sequences included: a terminal is
// shown them escaped, a pipe gets them as they are (a line break in a name then needs -0).
void print(const std::string& path, const FindOptions& options) {
    if (options.print0) {
        std::fwrite(path.c_str(), 1, path.size() + 1, stdout);
    } else {
        static const bool isTerminal = isatty(STDOUT_FILENO) == 1;
        std::printf("%s\n", (isTerminal ? terminalText(path) : path).c_str());
    }
}

// Exit status 3: no answer either way.
int couldNotSearch(const std::string& why) {
    std::fprintf(stderr, "kestly: could not search: %s\n", terminalText(why).c_str());
    return 3;
}

// Every candidate of the index, gathered on the main loop as a finder gathers them, and within
// the same wait.
int printCandidates(const FindOptions& options, const DCIMetadataQuerySettings& settings) {
    DCIMetadataQuery query(settings);
    std::optional<DCIMetadataGathered> found;
    query.startQuery(DCISampleFinder::fileNameForSampleName(options.name),
                     [&](const auto& gathered) { found = gathered; });
    DCIRunLoop::main().runUntil([&] { return found.has_value(); }, options.wait());
    query.stopQuery();  // kills and reaps the locate program if it is still running
    if (!found) return couldNotSearch("no answer within " + std::to_string(options.waitSeconds) + " s");
    for (const auto& path : found->paths) print(path, options);
    if (found->failure) return couldNotSearch(found->failure->localizedDescription());
    return found->paths.empty() ? 1 : 0;
}

// The finder searches on a thread of its own, since it needs the main loop, run here meanwhile.
int findSample(const FindOptions& options, const DCIMetadataQuerySettings& settings) {
    const auto queries = std::make_shared<UncachedFileQueries>();
    const auto finder = DCISampleFinder::initWithFileQueries(queries, settings);
    finder->setGatherTimeout(options.wait());
    std::optional<std::string> found;
    std::optional<DCIError> failure;
    std::thread search([&] {
        found = finder->pathForSampleWithName(options.name, options.sasID, options.sha, options.size,
                                              options.duration, &failure);
        DCIRunLoop::main().stop();
    });
    DCIRunLoop::main().run();
    search.join();
    if (failure) return couldNotSearch(failure->localizedDescription());
    if (!found) return 1;
    print(*found, options);
    return 0;
}

int find(FindOptions options) {
    if (options.sha) {
        std::transform(options.sha->begin(), options.sha->end(), options.sha->begin(),
                       [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
        if (!isSHA256(*options.sha)) {
            std::fprintf(stderr, "kestly: --sha takes 64 hexadecimal digits\n");
            return 2;
        }
    }
    DCIMetadataQuerySettings settings;
    struct stat status;
    if (!options.locateDatabase.empty()) {
        if (stat(options.locateDatabase.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            std::fprintf(stderr, "kestly: %s: no locate database there\n", options.locateDatabase.c_str());
            return 2;
        }
        settings.backend = DCIMetadataQueryBackend::locateDatabase;
        settings.locateDatabasePath = options.locateDatabase;
    }
    for (const auto& scope : options.scopes) {
        // Found paths are printed absolute, whatever folder kestly was started in.
        const auto folder = absoluteStandardPath(scope);
        if (!folder || stat(folder->c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            std::fprintf(stderr, "kestly: %s: not a folder\n", terminalText(scope).c_str());
            return 2;
        }
        settings.backend = DCIMetadataQueryBackend::folderScan;
        settings.scanFolders.push_back(*folder);
    }
    return options.candidates ? printCandidates(options, settings) : findSample(options, settings);
}

}  // namespace

KestlyCommand addFindCommand(CLI::App& app) {
    auto options = std::make_shared<FindOptions>();
    CLI::App* command = app.add_subcommand(
        "find", "Find the sample file NAME on this machine through the locate database, or a scan of --scope "
                "folders, and print the path of the first one that matches by --sha, else --size, else "
                "--duration; exit 1 when none does, 3 when it could not search");
    command->add_option("NAME", options->name, "The file name; ? and * are wildcards, case and accents ignored")
        ->required();
    command->add_option("--sasid", options->sasID,
                        "The service's sample identifier; kestly knows none, so it matches nothing and only "
                        "--sha can confirm a file");
    command->add_option("--sha", options->sha, "The SHA-256 of the file, 64 hexadecimal digits");
    command->add_option("--size", options->size, "The size in bytes")->check(countValidator());
    command->add_option("--duration", options->duration, "The length in sample frames")->check(countValidator());
    auto* database = command->add_option("--locate-db", options->locateDatabase,
                                         "Search this plocate database instead of the machine's own");
    command->add_option("--scope", options->scopes, "Scan this folder instead of searching a locate database")
        ->allow_extra_args(false)
        ->excludes(database);
    command->add_option("--wait", options->waitSeconds, "How long to wait for the search, in seconds (10)")
        ->check(CLI::PositiveNumber);
    command->add_flag("-0,--print0", options->print0,
                      "End each path with a NUL instead of a line break, and print it exactly as it is");
    command->add_flag("--candidates", options->candidates,
                      "Print every file of that name the index gave, in its order, without choosing");
    return {command, [options] { return find(*options); }};
}
