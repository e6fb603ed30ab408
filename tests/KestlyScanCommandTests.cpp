// `kestly scan` run as a program, the way a person runs it: the kestly of this build.

#include "support/KestlyProgram.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

class KestlyScanCommandTests : public ::testing::Test {
protected:
    // Runs `kestly scan` with `arguments` (already quoted), with $XDG_CACHE_HOME in `caches`.
    ProgramRun scan(const std::string& arguments) const {
        const ScopedEnvironment cacheHome("XDG_CACHE_HOME", caches.path().c_str());
        return runKestly("scan " + arguments + " 2>" + shellQuoted(caches / "stderr"));
    }
    std::string errors() const { return readWholeFile(caches / "stderr"); }

    // The root is given unstandardised, to be printed standardised.
    ProgramRun scanJSON() const {
        return scan(shellQuoted(root.path().string() + "/./") + " --primary-ext ALS --secondary-ext wav --json");
    }

    TemporaryDirectory root;
    TemporaryDirectory caches;
};

TEST_F(KestlyScanCommandTests, JSONListsTheTreeSortedAndCachesItsHashes) {
    root.writeFiles({"b/kick.wav", "a/Song.als", "a/notes.txt"});
    root.makeFolder("a/empty");
    const std::string song = root / "a/Song.als";
    const timespec times[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, song.c_str(), times, 0), 0);

    const ProgramRun first = scanJSON();
    ASSERT_EQ(first.status, 0) << errors();
    const auto document = nlohmann::json::parse(first.output);
    EXPECT_EQ(document["root"], root.path().string());
    EXPECT_EQ(document["folders"], nlohmann::json({"a", "a/empty", "b"}));
    ASSERT_EQ(document["files"].size(), 2u);
    EXPECT_EQ(document["files"][0]["path"], "a/Song.als");
    EXPECT_EQ(document["files"][0]["sha256"], kSHA256OfABC);
    EXPECT_EQ(document["files"][0]["modified"], 1'000'000'000);
    EXPECT_GT(document["files"][0]["created"], 1'000'000'000);
    EXPECT_EQ(document["files"][1]["path"], "b/kick.wav");
    EXPECT_EQ(document["hashed"], 2);
    EXPECT_EQ(document["cacheHits"], 0);
    EXPECT_TRUE(fs::exists(caches / "kestly/primary.sqlite"));
    EXPECT_TRUE(fs::exists(caches / "kestly/secondary.sqlite"));

    const ProgramRun second = scanJSON();
    ASSERT_EQ(second.status, 0) << errors();
    const auto again = nlohmann::json::parse(second.output);
    EXPECT_EQ(again["hashed"], 0);
    EXPECT_EQ(again["cacheHits"], 2);
    EXPECT_EQ(again["files"], document["files"]);

    const timespec later[2] = {{1'100'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, song.c_str(), later, 0), 0);
    const auto third = nlohmann::json::parse(scanJSON().output);
    EXPECT_EQ(third["hashed"], 1);
    EXPECT_EQ(third["cacheHits"], 1);
}

TEST_F(KestlyScanCommandTests, SummaryCountsWhatWasFoundAndRead) {
    root.writeFile("a/kick.wav", "abc");
    root.writeFile("snare.wav", "abcd");
    const std::string ownCaches = caches.makeFolder("own");
    const std::string arguments = shellQuoted(root.path().string()) + " --secondary-ext wav --primary-cache " +
                                  shellQuoted(ownCaches + "/p.db") + " --secondary-cache " + shellQuoted(ownCaches + "/s.db");
    const ProgramRun run = scan(arguments);
    ASSERT_EQ(run.status, 0) << errors();
    EXPECT_TRUE(run.output.starts_with("folders: 1, files: 2, bytes hashed: 7 (2 files read), cache hits: 0, time: "))
        << run.output;
    EXPECT_TRUE(fs::exists(ownCaches + "/s.db"));
    EXPECT_FALSE(fs::exists(caches / "kestly")) << "no default cache is made when both are given";
}

TEST_F(KestlyScanCommandTests, JSONCarriesNamesThatAreNotUTF8) {
    root.writeFile("caf\xe9.wav", "abc");
    const ProgramRun run = scanJSON();
    ASSERT_EQ(run.status, 0) << errors();
    const auto document = nlohmann::json::parse(run.output);
    ASSERT_EQ(document["files"].size(), 1u);
    EXPECT_EQ(document["files"][0]["path"], "caf\uFFFD.wav");
    EXPECT_EQ(document["files"][0]["sha256"], kSHA256OfABC);
}

TEST_F(KestlyScanCommandTests, AMissingRootIsAnErrorOfStatusTwo) {
    const ProgramRun run = scan(shellQuoted(root / "missing"));
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(run.output.empty());
    EXPECT_TRUE(errors().starts_with("kestly: " + (root / "missing") + ": ")) << errors();
}

}  // namespace
