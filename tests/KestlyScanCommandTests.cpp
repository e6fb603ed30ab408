// `kestly scan` run as a program, the way a person runs it: the kestly of this build.

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr const char* kSHA256OfABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

struct ProgramRun {
    int status;
    std::string output;  // standard output
    std::string errors;  // standard error
};

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

class KestlyScanCommandTests : public ::testing::Test {
protected:
    // Runs `kestly scan` with `arguments` (already quoted), with $XDG_CACHE_HOME in `caches`.
    ProgramRun scan(const std::string& arguments) const {
        const std::string errorFile = caches / "stderr";
        const std::string command = "XDG_CACHE_HOME=" + quoted(caches.path().string()) + " " +
                                    quoted(program.string()) + " scan " + arguments + " 2>" + quoted(errorFile);
        FILE* pipe = popen(command.c_str(), "r");
        if (!pipe) return {-1, "", "popen failed"};
        std::string output;
        char buffer[4096];
        while (const size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, count);
        const int status = pclose(pipe);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output, readWholeFile(errorFile)};
    }

    // The root is given unstandardised, to be printed standardised.
    ProgramRun scanJSON() const {
        return scan(quoted(root.path().string() + "/./") + " --primary-ext ALS --secondary-ext wav --json");
    }

    const fs::path program = KESTLY_BINARY;
    TemporaryDirectory root;
    TemporaryDirectory caches;
};

TEST_F(KestlyScanCommandTests, JSONListsTheTreeSortedAndCachesItsHashes) {
    root.writeFile("b/kick.wav", "abc");
    root.writeFile("a/Song.als", "abc");
    root.writeFile("a/notes.txt", "abc");
    root.makeFolder("a/empty");
    // Named as samples, but no files: a scan that took them in could never hash them.
    ASSERT_EQ(mkfifo((root / "b/pipe.wav").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", root / "b/null.wav");
    const std::string song = root / "a/Song.als";
    const timespec times[2] = {{1'000'000'000, 0}, {1'000'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, song.c_str(), times, 0), 0);

    const ProgramRun first = scanJSON();
    ASSERT_EQ(first.status, 0) << first.errors;
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
    ASSERT_EQ(second.status, 0) << second.errors;
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
    const std::string arguments = quoted(root.path().string()) + " --secondary-ext wav --primary-cache " +
                                  quoted(ownCaches + "/p.db") + " --secondary-cache " + quoted(ownCaches + "/s.db");
    const ProgramRun run = scan(arguments);
    ASSERT_EQ(run.status, 0) << run.errors;
    EXPECT_TRUE(run.output.starts_with("folders: 1, files: 2, bytes hashed: 7 (2 files read), cache hits: 0, time: "))
        << run.output;
    EXPECT_TRUE(fs::exists(ownCaches + "/s.db"));
    EXPECT_FALSE(fs::exists(caches / "kestly")) << "no default cache is made when both are given";
}

TEST_F(KestlyScanCommandTests, JSONCarriesNamesThatAreNotUTF8) {
    root.writeFile("caf\xe9.wav", "abc");
    const ProgramRun run = scanJSON();
    ASSERT_EQ(run.status, 0) << run.errors;
    const auto document = nlohmann::json::parse(run.output);
    ASSERT_EQ(document["files"].size(), 1u);
    EXPECT_EQ(document["files"][0]["path"], "caf\uFFFD.wav");
    EXPECT_EQ(document["files"][0]["sha256"], kSHA256OfABC);
}

TEST_F(KestlyScanCommandTests, AMissingRootIsAnErrorOfStatusTwo) {
    const ProgramRun run = scan(quoted(root / "missing"));
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(run.output.empty());
    EXPECT_TRUE(run.errors.starts_with("kestly: " + (root / "missing") + ": ")) << run.errors;
}

}  // namespace
