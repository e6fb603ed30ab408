// Reading a version-2 project manifest of 10,000 file entries over the three categories, against
// a bare parse of the same bytes: the difference is the reader's own work (the nesting check,
// typed reads, path cleaning and stripping, one object per entry). With information logging
// on, standard error goes to /dev/null so the terminal is not what is measured.

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "support/StandardErrorToNull.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr int kEntries = 10000;

// An Ableton Live project whose entries look like the service's: absolute paths under the
// project folder, a few names that are not ASCII, some files stored encoded, "misc" files
// without a size.
const std::shared_ptr<const DCIData>& manifestBytes() {
    static const auto bytes = [] {
        const std::string folder = "/Users/ann/Music/Bëat Prøject";
        nlohmann::json files = {{"session", nlohmann::json::array()},
                                {"samples", nlohmann::json::array()},
                                {"misc", nlohmann::json::array()}};
        for (int i = 0; i < kEntries; ++i) {
            const std::string number = std::to_string(i);
            nlohmann::json entry = {{"file_hash", "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08"},
                                    {"sas_id", "sas-" + number},
                                    {"url", "https://cdn.example.com/projects/5b1e/files/" + number + "?sig=ab%2Fcd"}};
            switch (i % 3) {
                case 0:
                    entry["path"] = folder + "/Sets/Beat " + number + ".als";
                    entry["file_size"] = 48213 + i;
                    files["session"].push_back(entry);
                    break;
                case 1:
                    entry["path"] = folder + "/Samples/Drüms/kick " + number + ".wav";
                    entry["file_size"] = 1048576 + i;
                    entry["encoding"] = {{"name", "flac"},
                                         {"decoded_hash", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
                                         {"decoded_size", 2097152 + i},
                                         {"decoded_format", "wav"}};
                    files["samples"].push_back(entry);
                    break;
                default:
                    entry["path"] = folder + "/Ableton Project Info/./notes " + number + ".txt";
                    files["misc"].push_back(entry);
                    break;
            }
        }
        const nlohmann::json manifest = {
            {"collaboration", true},
            {"contribution", false},
            {"created_at", "2014-05-06T10:20:30+0200"},
            {"creator_id", 4711},
            {"name", "Bëat Prøject"},
            {"path", folder + "/Beat.als"},
            {"username", "ann"},
            {"uuid", "5b1e-uuid"},
            {"revision_uuid", "5b1e-rev-2"},
            {"previous_revision_uuid", "5b1e-rev-1"},
            {"project_type", "ableton"},
            {"files", files},
        };
        return std::make_shared<const DCIData>(manifest.dump());
    }();
    return bytes;
}

void BM_BareParse(benchmark::State& state) {
    const auto& bytes = manifestBytes();
    for (auto _ : state) {
        auto parsed = nlohmann::json::parse(bytes->stringView());
        benchmark::DoNotOptimize(parsed);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes->length()));
    state.counters["manifest_bytes"] = static_cast<double>(bytes->length());
}

void BM_ManifestRead(benchmark::State& state, const char* verbose) {
    setenv("VERBOSE_LOGGING", verbose, 1);
    StandardErrorToNull quiet;
    const auto& bytes = manifestBytes();
    for (auto _ : state) {
        const auto manifest = DCIManifestV2ProjectItem::initWithJSONData(bytes);
        if (!manifest || manifest->projectFiles().size() != kEntries) {
            state.SkipWithError("the generated manifest did not read whole");
            break;
        }
        benchmark::DoNotOptimize(manifest);
    }
    DCLogger::sharedLogger().flush();
    unsetenv("VERBOSE_LOGGING");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes->length()));
    state.counters["entries"] = kEntries;
}

}  // namespace

BENCHMARK(BM_BareParse)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ManifestRead, silenced, "no")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ManifestRead, logging, "yes")->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
