// `kestly scan` run as a program, the way a person runs it: the kestly of this build.

#include "support/KestlyProgram.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

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

// A name that is not UTF-8 is carried with a replacement character.
TEST_F(KestlyScanCommandTests, JSONListsTheTreeSortedAndCachesItsHashes) {
    root.writeFiles({"b/kick.wav", "a/Song.als", "a/notes.txt", "caf\xe9.wav"});
    root.makeFolder("a/empty");
    const std::string song = root / "a/Song.als";
    setModificationTime(song, 1'000'000'000);

    const ProgramRun first = scanJSON();
    ASSERT_EQ(first.status, 0) << errors();
    const auto document = nlohmann::json::parse(first.output);
    EXPECT_EQ(document["root"], root.path().string());
    EXPECT_EQ(document["folders"], nlohmann::json({"a", "a/empty", "b"}));
    ASSERT_EQ(document["files"].size(), 3u);
    EXPECT_EQ(document["files"][0]["path"], "a/Song.als");
    EXPECT_EQ(document["files"][0]["sha256"], kSHA256OfABC);
    EXPECT_EQ(document["files"][0]["modified"], 1'000'000'000);
    EXPECT_GT(document["files"][0]["created"], 1'000'000'000);
    EXPECT_EQ(document["files"][1]["path"], "b/kick.wav");
    EXPECT_EQ(document["files"][2]["path"], "caf\uFFFD.wav");
    EXPECT_EQ(document["files"][2]["sha256"], kSHA256OfABC);
    EXPECT_EQ(document["hashed"], 3);
    EXPECT_EQ(document["cacheHits"], 0);
    EXPECT_TRUE(fs::exists(caches / "kestly/primary.sqlite"));
    EXPECT_TRUE(fs::exists(caches / "kestly/secondary.sqlite"));

    const auto again = nlohmann::json::parse(scanJSON().output);
    EXPECT_EQ(again["hashed"], 0);
    EXPECT_EQ(again["cacheHits"], 3);
    EXPECT_EQ(again["files"], document["files"]);

    setModificationTime(song, 1'100'000'000);
    const auto third = nlohmann::json::parse(scanJSON().output);
    EXPECT_EQ(third["hashed"], 1);
    EXPECT_EQ(third["cacheHits"], 2);
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

TEST_F(KestlyScanCommandTests, AMissingRootIsAnErrorOfStatusTwo) {
    const ProgramRun run = scan(shellQuoted(root / "missing"));
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(run.output.empty());
    EXPECT_TRUE(errors().starts_with("kestly: " + (root / "missing") + ": ")) << errors();
}

}  // namespace
