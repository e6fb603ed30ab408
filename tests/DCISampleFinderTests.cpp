// The sample finder and its sources: name searches through a private locate database built
// by updatedb and through the folder scan, audio lengths of files written with libsndfile.

#include "CoreKestly/FileSystem/DCICachedFileQueries.h"

#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Search/DCIMetadataQuery.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/SampleFinder/DCIAudioFile.h"
#include "CoreKestly/SampleFinder/DCISampleFinder.h"
#include "support/LogReading.h"
#include "support/Testing.h"

#include <sndfile.h>

namespace {

constexpr auto kPatience = 30s;

void writeAudio(const std::string& path, int format, int sampleRate, sf_count_t frames) {
    SF_INFO info{0, sampleRate, 2, format, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    const std::vector<float> silence(static_cast<size_t>(frames) * 2, 0.25f);
    EXPECT_EQ(sf_writef_float(file, silence.data(), frames), frames);
    sf_close(file);
}

// No child of this process is left, running or unreaped.
bool hasNoChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// Whether process `pid` runs (whoever's child it is): neither gone nor a zombie.
bool isRunning(pid_t pid) {
    const std::string status = readWholeFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t state = status.rfind(") ");
    return state != std::string::npos && status[state + 2] != 'Z' && status[state + 2] != 'X';
}

using Name = std::optional<std::string>;
constexpr auto none = std::nullopt;

// The finder's search on a thread of its own while the main loop runs, as a host runs it.
std::optional<std::string> searchOffMain(DCISampleFinder& finder, const Name& name, const Name& sasID, const Name& sha,
                                         uint64_t size, uint64_t duration, std::optional<DCIError>* failure = nullptr) {
    std::optional<std::string> found;
    std::atomic<bool> done = false;
    std::jthread search([&] {
        found = finder.pathForSampleWithName(name, sasID, sha, size, duration, failure);
        done = true;
        DCIRunLoop::main().performAsync([] {});  // so the loop looks at `done` again
    });
    EXPECT_TRUE(DCIRunLoop::main().runUntil([&] { return done.load(); }, kPatience));
    search.join();
    return found;
}

class DCISampleFinderTests : public ::testing::Test {
protected:
    void SetUp() override {
        if (access("/usr/bin/updatedb", X_OK) != 0 || access("/usr/bin/plocate", X_OK) != 0)
            GTEST_SKIP() << "plocate is not installed";
    }

    DCIMetadataQuerySettings settingsFor(DCIMetadataQueryBackend backend) {
        // A private database of the tree, every file in it visible to whoever searches.
        const std::string root = tree.path().string(), database = folder / "tree.db";
        const std::string updatedb = "/usr/bin/updatedb --require-visibility 0 --database-root '" + root + "' -o ";
        EXPECT_EQ(std::system((updatedb + database).c_str()), 0);
        return {backend, database, "/usr/bin/plocate", {root}};
    }

    // A locate program of its own: a shell script that runs `body` whatever it is asked.
    DCIMetadataQuerySettings fakeLocate(const std::string& body) {
        const std::string program = folder.writeFile("locate" + std::to_string(++programs), "#!/bin/sh\n" + body + "\n");
        EXPECT_EQ(chmod(program.c_str(), 0755), 0);
        return {DCIMetadataQueryBackend::locateDatabase, folder.writeFile("fake.db", ""), program, {}};
    }

    // What a query gathers for `name`, pumping the main loop.
    DCIMetadataGathered gather(const DCIMetadataQuerySettings& settings, const std::string& name) {
        DCIMetadataQuery query(settings);
        std::optional<DCIMetadataGathered> found;
        EXPECT_TRUE(query.startQuery(name, [&](const auto& gathered) { found = gathered; }));
        EXPECT_TRUE(DCIRunLoop::main().runUntil([&] { return found.has_value(); }, kPatience));
        return found.value_or(DCIMetadataGathered{{"(none)"}, {}});
    }
    std::vector<std::string> candidates(const DCIMetadataQuerySettings& settings, const std::string& name) {
        const auto gathered = gather(settings, name);
        EXPECT_FALSE(gathered.failure) << gathered.failure->description();
        return gathered.paths;
    }

    TemporaryDirectory tree, folder;
    int programs = 0;
};

TEST_F(DCISampleFinderTests, BothBackendsMatchWholeNamesByTheirFoldedForms) {
    // Names as a Mac stores them (decomposed), as other systems do, and one in Latin-1.
    const std::string korean = "\u1112\u1161\u11AB\u1100\u116E\u11A8.wav", kana = "\u304B\u3099.wav";
    tree.writeFiles({"Café.wav", "cafe.wav", "kick.wav", "kiick.wav", "sub/Kick 01.aif", "[x].wav", "a808.mp3",
                     "b808.mp3", "z/808.mp3", "Việt Nam.wav", "Nǐ hǎo.wav", "Ș.wav", "Cre\u0300me.wav", korean, kana,
                     "ǅ.wav", "ﬁle.wav", "caf\xe9.wav"}, "");
    const struct { std::string name; std::vector<std::string> found; } cases[] = {
        // Diacritics on either side; the whole name only; glob characters stand for themselves;
        // names that hold the name are no hits and use up no room.
        {"CAFE.wav", {"Café.wav", "cafe.wav"}}, {"cafÉ.WAV", {"Café.wav", "cafe.wav"}}, {"k?ck.wav", {"kick.wav"}},
        {"k*ck.wav", {"kick.wav", "kiick.wav"}}, {"kick", {}}, {"*.AIF", {"sub/Kick 01.aif"}},
        {"[x].wav", {"[x].wav"}}, {"sub", {"sub"}}, {"808.mp3", {"z/808.mp3"}},
        {"viet nam.wav", {"Việt Nam.wav"}}, {"NI HAO.wav", {"Nǐ hǎo.wav"}}, {"s.wav", {"Ș.wav"}},
        {"crème.wav", {"Cre\u0300me.wav"}}, {"한국.wav", {korean}}, {"が.wav", {kana}}, {"DZ.wav", {"ǅ.wav"}},
        {"file.wav", {"ﬁle.wav"}}, {"caf\xe9.wav", {"caf\xe9.wav"}}, {"CAF\xe9.wav", {}},  // not UTF-8: bytes
    };
    const std::string link = folder / "link";  // a scanned folder reached through a link
    fs::create_directory_symlink(tree.path(), link);
    for (const auto& [backend, root] : {std::pair{DCIMetadataQueryBackend::locateDatabase, tree.path().string()},
                                        {DCIMetadataQueryBackend::folderScan, tree.path().string()},
                                        {DCIMetadataQueryBackend::folderScan, link}}) {
        auto settings = settingsFor(backend);
        settings.maximumResults = 2;
        settings.scanFolders = {root};
        for (const auto& test : cases) {
            std::vector<std::string> expected;
            for (const auto& relative : test.found) expected.push_back(root + "/" + relative);
            EXPECT_EQ(candidates(settings, test.name), expected) << test.name << " backend " << int(backend);
        }
    }
}

// The host stops turning its loop once the search has answered, as kestly find does: the
// locate program, a wrapper whose own child holds the pipe too, must be gone by then.
TEST_F(DCISampleFinderTests, ASearchThatTimesOutKillsItsLocateProgramsWholeGroupBeforeItAnswers) {
    const std::string pids = folder / "pids";
    const auto finder = DCISampleFinder::initWithFileQueries({}, fakeLocate("sleep 100 & echo $$ $! >" + pids + "; wait"));
    finder->setGatherTimeout(2s);
    std::jthread search([&] { EXPECT_EQ(finder->pathForSampleWithName("Kick.wav", none, none, 5, 0), none); });
    // Turns in short slices: nothing wakes the loop when the script writes its numbers.
    for (const auto end = DCIRunLoop::Clock::now() + kPatience; readWholeFile(pids).find('\n') == std::string::npos;) {
        ASSERT_LT(DCIRunLoop::Clock::now(), end);
        DCIRunLoop::main().runUntil(DCIRunLoop::Clock::now() + 5ms);
    }
    search.join();  // without turning the loop
    pid_t shell = 0, sleeper = 0;
    std::istringstream(readWholeFile(pids)) >> shell >> sleeper;
    EXPECT_FALSE(isRunning(shell));
    // A signal takes a moment to end a process that is not ours to wait for.
    for (int i = 0; i < 100 && isRunning(sleeper); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(isRunning(sleeper));
    EXPECT_TRUE(hasNoChildren());
    DCIRunLoop::main().runUntil(DCIRunLoop::Clock::now() + 50ms);  // the queued stop, harmless now
}

// The kernel reaps the children of a host that ignores SIGCHLD as they exit, often before the
// query can open a pidfd: what a fast program wrote must still be read.
TEST_F(DCISampleFinderTests, AHostThatIgnoresSIGCHLDLosesNoOutput) {
    auto settings = fakeLocate("");
    // A program fast enough to be gone before the pidfd is opened, which takes its arguments
    // in %.0s conversions so that it has nothing to say about them.
    std::ofstream(settings.locateProgramPath) << "#!/usr/bin/printf %.0s%.0s%.0s%.0s%.0s%.0s%.0s%.0s%.0s%.0s/x/Kick.wav\\0\n";
    const auto previous = signal(SIGCHLD, SIG_IGN);
    int found = 0;
    for (int i = 0; i < 100; ++i) found += candidates(settings, "Kick.wav") == std::vector<std::string>{"/x/Kick.wav"};
    signal(SIGCHLD, previous);
    EXPECT_EQ(found, 100);
}

// plocate exits with 1 for errors as for no match: only its message tells them apart.
TEST_F(DCISampleFinderTests, AFailedSearchSaysWhyAndIsNoEmptyAnswer) {
    tree.writeFile("Kick.wav", "");
    const auto working = settingsFor(DCIMetadataQueryBackend::locateDatabase);
    const auto corrupt = [&] { auto settings = working; settings.locateDatabasePath = folder.writeFile("bad.db", "PLOCATE"); return settings; }();
    const auto missing = [&] { auto settings = working; settings.locateDatabasePath = folder / "missing.db"; return settings; }();
    const std::string fake = "the locate database " + (folder / "fake.db") + " could not be searched: ";
    const auto noFolder = DCIMetadataQuerySettings{DCIMetadataQueryBackend::folderScan, {}, {}, {folder / "no music"}};
    const auto beside = [&] { auto settings = working; settings.backend = DCIMetadataQueryBackend::automatic; settings.scanFolders = noFolder.scanFolders; return settings; }();
    const struct { const char* name; DCIMetadataQuerySettings settings; std::optional<std::string> failure; } cases[] = {
        {"no match; no music folder beside a database", beside, none},
        {"no match, quiet status 1", fakeLocate("exit 1"), none},
        {"corrupt", corrupt, "the locate database " + corrupt.locateDatabasePath + " could not be searched: pread: "},
        {"missing", missing, "the locate database " + missing.locateDatabasePath + " could not be searched: No such file"},
        {"message", fakeLocate("echo 'plocate: Permission denied' >&2; exit 1"), fake + "plocate: Permission denied"},
        {"killed", fakeLocate("kill -9 $$"), fake + "the locate program was killed by signal 9"},
        {"no folder", noFolder, "no folder to scan could be read: " + noFolder.scanFolders[0] + ": No such file"},
    };
    for (const auto& test : cases) {
        const auto gathered = gather(test.settings, "Snare.wav");
        EXPECT_EQ(gathered.paths, std::vector<std::string>{}) << test.name;
        const std::string why = gathered.failure ? gathered.failure->localizedDescription() : "(none)";
        EXPECT_EQ(why.find(test.failure.value_or("(none)")), 0u) << test.name << ": " << why;
    }

    // The finder says so, and logs it.
    LogSince log;
    std::optional<DCIError> failure;
    const auto finder = DCISampleFinder::initWithFileQueries({}, corrupt);
    EXPECT_EQ(searchOffMain(*finder, "Kick.wav", none, none, 1, 0, &failure), none);
    EXPECT_EQ(failure.value_or(DCIError("", 0, "")).code(), kDCIMetadataQueryLocateFailed);
    EXPECT_NE(log.text().find("DCISampleFinder: could not search everywhere for Kick.wav: the locate database " +
                              corrupt.locateDatabasePath + " could not be searched: pread: "), std::string::npos);
}

TEST_F(DCISampleFinderTests, ChoosesByTheFirstRuleThatAppliesOnceTheMainLoopRuns) {
    tree.writeFile("a/Loop.wav", "RIFF and then no audio");  // unreadable audio, first in order
    tree.makeFolder("b");
    writeAudio(tree / "b/Loop.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1000);
    const std::string c = tree.writeFile("c/Loop.wav", std::string(1000, 'c'));
    const std::string slashed = tree.writeFile("d/kick:snare.wav", "kick");
    const auto sizeOf = [](const std::string& path) { return static_cast<uint64_t>(fs::file_size(path)); };

    // Real caches, whose sasID of a file is "id-" and the name of its folder.
    const auto cache = DCISHACache::initWithCachePath(folder / "samples.sqlite", [](const std::string& path) {
        return std::optional("id-" + fs::path(path).parent_path().filename().string());
    });
    const auto queries = std::make_shared<DCICachedFileQueries>(DCIFileKinds{{}, {}, {"wav"}}, nullptr, cache);
    const auto finder = DCISampleFinder::initWithFileQueries(queries, settingsFor(DCIMetadataQueryBackend::automatic));
    const std::string fresh = tree.writeFile("e/Fresh.wav", "new");  // saved since the database was made

    // A search while the main loop stands still ends empty after its wait, and does not hang;
    // the start and stop it queued run later and leave the next searches their own candidates.
    finder->setGatherTimeout(50ms);
    const auto search = [&] { return finder->pathForSampleWithName("Loop.wav", "id-c", none, 0, 0); };
    EXPECT_EQ(std::async(std::launch::async, search).get(), none);
    finder->setGatherTimeout(DCISampleFinder::kDefaultGatherTimeout);

    const struct { Name name, sasID, sha; uint64_t size, duration; std::optional<std::string> found; } cases[] = {
        {"Loop.wav", "id-c", none, 0, 0, c}, {"Loop.wav", "id-none", KSTSha256ForFileAtPath(c), 0, 0, c},
        {"Loop.wav", "id-none", none, sizeOf(c), 0, none},  // identifiers decide alone
        {"Loop.wav", none, none, sizeOf(c), 1000, c},
        {"Loop.wav", none, none, 0, 1000, tree / "b/Loop.wav"},  // a/ cannot be read
        {"Loop.wav", none, none, 0, 0, none}, {"Kick/Snare.wav", none, none, sizeOf(slashed), 0, slashed},
        {none, none, none, sizeOf(c), 0, none}, {"Fresh.wav", none, none, 3, 0, fresh},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(searchOffMain(*finder, test.name, test.sasID, test.sha, test.size, test.duration), test.found)
            << test.name.value_or("nil") << " " << test.sasID.value_or("nil");
    }

    LogSince log;
    EXPECT_EQ(finder->pathForSampleWithName("Loop.wav", none, none, sizeOf(c), 0), none);
    EXPECT_TRUE(log.has("DCISampleFinder: refused to search for Loop.wav on the main thread, whose loop the search "
                        "needs."));
}

// Of many files of one name only one has the size sought, and the cap would be used up first.
TEST_F(DCISampleFinderTests, TheCapCountsOnlyCandidatesStillInTheRunningAndIsLoggedOnce) {
    for (int i = 0; i < 5; ++i) tree.writeFile("d" + std::to_string(i) + "/Kick.wav", i == 4 ? "fives" : "abc");
    const std::string decomposed = tree.writeFile("Cre\u0300me.wav", "fives");  // found by its folded name only
    for (const auto backend : {DCIMetadataQueryBackend::locateDatabase, DCIMetadataQueryBackend::folderScan}) {
        auto settings = settingsFor(backend);
        settings.maximumResults = 3;
        const auto finder = DCISampleFinder::initWithFileQueries({}, settings);
        EXPECT_EQ(searchOffMain(*finder, "Kick.wav", none, none, 5, 0), tree / "d4/Kick.wav");
        EXPECT_EQ(searchOffMain(*finder, "CREME.wav", none, none, 5, 0), decomposed);
        LogSince log;
        EXPECT_NE(searchOffMain(*finder, "Kick.wav", none, none, 3, 0), none);
        EXPECT_EQ(log.count("DCISampleFinder: the search for Kick.wav stopped at 3 candidates; files past them were "
                            "not looked at."), 1u);
    }
}

// A file of the sample's name and size, planted to stall a search by hash: hours of reading.
TEST_F(DCISampleFinderTests, AStopEndsTheHashOfAHugeCandidate) {
    const uint64_t size = 1ull << 40;
    ASSERT_EQ(truncate(tree.writeFile("Kick.wav", "").c_str(), static_cast<off_t>(size)), 0);
    const auto queries = std::make_shared<DCICachedFileQueries>(DCIFileKinds{}, nullptr, nullptr);
    const auto finder = DCISampleFinder::initWithFileQueries(queries, settingsFor(DCIMetadataQueryBackend::folderScan));
    std::jthread stopper([&] {
        std::this_thread::sleep_for(300ms);
        finder->stopSearching();
    });
    std::optional<DCIError> failure;
    EXPECT_EQ(searchOffMain(*finder, "Kick.wav", none, std::string(64, '0'), size, 0, &failure), none);
    EXPECT_EQ(failure.value_or(DCIError("", 0, "")).code(), kDCISampleFinderStopped);
}

TEST_F(DCISampleFinderTests, AudioFileReadsFramesAndRateOrLeavesTheOutputsAlone) {
    tree.writeFile("notes.wav", "not audio at all, though named like it");
    ASSERT_EQ(mkfifo((tree / "fifo.wav").c_str(), 0600), 0);  // must not block the reader
    const struct { const char* name; int format; uint64_t rate, frames; } cases[] = {  // format 0: not audio
        {"pcm.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 44100, 12345},
        {"pcm.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 48000, 777},
        {"lossless.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 22050, 4096},
        {"vorbis.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 44100, 9000},
        {"layer3.mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100, 44100}, {"notes.wav", 0, 7, 7},
        {"fifo.wav", 0, 7, 7},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        if (test.format) writeAudio(tree / test.name, test.format, static_cast<int>(test.rate), sf_count_t(test.frames));
        uint64_t frames = 7, rate = 7;
        EXPECT_EQ(DCIAudioFile::numberOfSamples(frames, rate, tree / test.name), test.format != 0);
        EXPECT_EQ(std::pair(frames, rate), std::pair(test.frames, test.rate));
    }
}

}  // namespace
