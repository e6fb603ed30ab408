// File hashing, and the SHA cache that spares unchanged files a second reading.

#include "CoreKestly/FileSystem/DCISHACache.h"

#include "CoreKestly/FileSystem/KSTFileHash.h"
#include "CoreKestly/Platform/Storage/DCISQLiteDatabaseInternal.h"
#include "support/LogReading.h"
#include "support/Testing.h"

#include <openssl/evp.h>

#include <csignal>

#if defined(__SANITIZE_THREAD__)
#define KESTLY_UNDER_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTLY_UNDER_THREAD_SANITIZER 1
#endif
#endif

namespace {

using HashFunction = std::optional<std::string> (*)(const std::string&);

// OpenSSL's one-shot SHA-256 over bytes in memory, the reference the streaming functions must match.
std::string referenceSha256(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) text += {kHexDigits[digest[i] >> 4], kHexDigits[digest[i] & 0x0f]};
    return text;
}

std::string randomBytes(size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
}

class FileHashTest : public ::testing::TestWithParam<HashFunction> {
protected:
    std::optional<std::string> hash(const std::string& path) const { return GetParam()(path); }

    TemporaryDirectory folder;
};

// Empty, within one read, at and across the read chunk's edges, and many chunks.
TEST_P(FileHashTest, MatchesTheReferenceForEverySize) {
    for (const size_t size : {0u, 3u, 4095u, 4096u, 4097u, 3u * 1024 * 1024 + 17}) {
        const std::string bytes = randomBytes(size, static_cast<unsigned>(size));
        EXPECT_EQ(hash(folder.writeFile("file-" + std::to_string(size), bytes)), referenceSha256(bytes)) << size;
    }
}

TEST_P(FileHashTest, FollowsALinkToAFileAndAnswersNothingForWhatIsNotAReadableFile) {
    fs::create_symlink(folder.writeFile("target", "abc"), folder / "link");
    EXPECT_EQ(hash(folder / "link"), kSHA256OfABC);

    fs::create_symlink(folder / "nowhere", folder / "dangling");
    // A FIFO with no writer would block a plain open and read forever after.
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    // /proc/self/mem is a regular file whose first read fails: page zero is never mapped.
    for (const std::string& path : {folder / "missing", std::string(), folder.makeFolder("a folder"),
                                    folder / "dangling", folder / "fifo", std::string("/proc/self/mem")}) {
        EXPECT_FALSE(hash(path)) << path;
    }
    if (geteuid() != 0) {  // root reads files whatever their permissions
        const std::string path = folder.writeFile("secret", "secret");
        fs::permissions(path, fs::perms::none);
        EXPECT_FALSE(hash(path));
    }
}

INSTANTIATE_TEST_SUITE_P(PlainAndEco, FileHashTest,
                         ::testing::Values(&KSTSha256ForFileAtPath, &KSTSha256ForFileAtPathEco),
                         [](const ::testing::TestParamInfo<HashFunction>& function) {
                             return function.index == 0 ? "Plain" : "Eco";
                         });

TEST(FileHashEcoTest, GivesTheReferenceDigestForAFileThatTakesSeveralSlices) {
    // Big enough that hashing it takes more than one 40 ms slice even on a fast machine.
    TemporaryDirectory folder;
    const std::string bytes = randomBytes(64 * 1024 * 1024, 7);
    EXPECT_EQ(KSTSha256ForFileAtPathEco(folder.writeFile("large", bytes)), referenceSha256(bytes));
}


// An arbitrary whole second to give files, well away from the time the test runs.
constexpr time_t kSomeSecond = 1'600'000'000;

DCIDate dateAt(time_t seconds, long nanoseconds = 0) { return DCIDate::dateWithSecondsSince1970(seconds, nanoseconds); }

// The cache file's rows, read behind the cache's back: path → sasID.
std::map<std::string, std::string> storedSasIDs(const std::string& cachePath) {
    std::string failure;
    auto database = DCISQLiteDatabase::open(cachePath, failure);
    std::map<std::string, std::string> rows;
    auto select = database->prepare("SELECT path, sasID FROM records");
    while (select && select->step() == DCISQLiteStatement::Step::Row) rows[*select->columnText(0)] = *select->columnText(1);
    return rows;
}

std::vector<fs::path> setAsideFiles(const TemporaryDirectory& folder) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(folder.path())) {
        if (entry.path().filename().string().find(".corrupt-") != std::string::npos) found.push_back(entry.path());
    }
    return found;
}

class SHACacheTest : public ::testing::Test {
protected:
    // Answers "sas:<name>", nothing for names that start with "unknown", and counts its calls:
    // one call per miss.
    DCISasIDCalculator countingCalculator() {
        return [this](const std::string& path) -> std::optional<std::string> {
            ++calculatorCalls;
            const std::string name = fs::path(path).filename().string();
            return name.starts_with("unknown") ? std::nullopt : std::optional("sas:" + name);
        };
    }

    std::shared_ptr<DCISHACache> makeCache() { return DCISHACache::initWithCachePath(cachePath, countingCalculator()); }

    TemporaryDirectory folder;
    const std::string cachePath = folder / "sha.cache";
    std::atomic<int> calculatorCalls{0};
};

TEST_F(SHACacheTest, AnswersFromItsRecordWhileTheModificationTimeIsUnchanged) {
    const std::string path = folder.writeFile("a.wav", "first content");
    auto cache = makeCache();
    const auto record = cache->recordForFile(path);
    ASSERT_TRUE(record);
    EXPECT_EQ(std::tuple(cache->SHAForFile(path), cache->SHAForFileEco(path), cache->SasIDForFile(path)),
              std::tuple(KSTSha256ForFileAtPath(path), record->sha, "sas:a.wav"));
    // No answer is an answer too: asked once, remembered and stored (see the reload).
    const std::string unknown = folder.writeFile("unknown.wav", "content");
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(cache->SasIDForFile(unknown));
    EXPECT_EQ(calculatorCalls, 2);

    folder.writeFile("a.wav", "second content");
    setModificationTime(path, kSomeSecond);
    EXPECT_EQ(cache->SHAForFileEco(path), KSTSha256ForFileAtPath(path));
    EXPECT_EQ(std::tuple(cache->recordForFile(path)->stamp.mdate, calculatorCalls.load()), std::tuple(dateAt(kSomeSecond), 3));
}

TEST_F(SHACacheTest, ChangesWithinTheSecondAreHashedAgainInThisRunAndTheNext) {
    const std::string a = folder / "a.wav", b = folder / "b.wav";
    const std::function<void()> changes[] = {
        [&] { folder.writeFile("a.wav", "fresh content"); setModificationTime(a, kSomeSecond, 800'000'000); },
        [&] { std::ofstream(a, std::ios::app) << "+"; setModificationTime(a, kSomeSecond, 200'000'000); },
        [&] { fs::rename(b, a); },  // same size, same times
    };
    for (const auto& change : changes) {
        for (const bool reloaded : {false, true}) {
            folder.writeFile("a.wav", "first content");
            folder.writeFile("b.wav", "other content");
            for (const auto& path : {a, b}) setModificationTime(path, kSomeSecond, 200'000'000);
            auto cache = makeCache();
            cache->SHAForFile(a);
            change();
            if (reloaded) cache.reset(), cache = makeCache();
            EXPECT_EQ(cache->SHAForFile(a), KSTSha256ForFileAtPath(a)) << &change - changes << reloaded;
            cache.reset();
            fs::remove(cachePath);
        }
    }
}

TEST_F(SHACacheTest, AnswersNothingAndStoresNothingWithoutAFile) {
    auto cache = makeCache();
    // Only a regular file has content: a folder, a FIFO and a device are no files to answer for.
    ASSERT_EQ(mkfifo((folder / "pipe.wav").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", folder / "null.wav");
    std::vector<std::string> paths{folder / "missing.wav", std::string(), folder.makeFolder("folder.wav"),
                                   folder / "pipe.wav", folder / "null.wav"};
    // A file that may not be read is turned away by its open, without a log line.
    if (geteuid() != 0) {  // permissions do not bind the superuser
        paths.push_back(folder.writeFile("secret.wav", "secret"));
        fs::permissions(paths.back(), fs::perms::none);
    }
    LogSince log;
    for (const std::string& path : paths) {
        EXPECT_FALSE(cache->SHAForFile(path)) << path;
        EXPECT_FALSE(cache->SasIDForFile(path)) << path;
    }
    EXPECT_FALSE(cache->cacheFile(folder.writeFile("b.wav", "b"), false, std::nullopt));
    EXPECT_EQ(std::tuple(cache->shaCache().size(), cache->dirty(), calculatorCalls.load()), std::tuple(0u, false, 0));
    EXPECT_FALSE(log.has("Unable to calcualate SHA"));
}

// A regular file whose reading fails at once: the first page of the address space is never mapped.
TEST_F(SHACacheTest, TriesAgainAFileThatCouldNotBeHashed) {
    const std::string path = "/proc/self/mem";
    auto cache = makeCache();
    LogSince log;
    EXPECT_FALSE(cache->SHAForFile(path));
    EXPECT_TRUE(log.has("Unable to calcualate SHA for " + path));
    ASSERT_TRUE(cache->shaCache().contains(path) && !cache->shaCache().at(path).sha);

    // The record stays valid for its sasID: only the hash lookup counts it as a miss.
    EXPECT_EQ(cache->SasIDForFile(path), "sas:mem");
    EXPECT_EQ(calculatorCalls, 1);
    EXPECT_FALSE(cache->SHAForFile(path) || cache->recordForFile(path)->sha);
    EXPECT_EQ(calculatorCalls, 3);
}

TEST_F(SHACacheTest, ANewInstanceKeepsTheRecordsOfUnchangedFiles) {
    const std::string kept = folder.writeFile("kept.wav", "kept");
    setModificationTime(kept, 10'413'792'000, 123'456'789);  // 2300-01-01, past 64-bit nanoseconds
    const std::string modified = folder.writeFile("modified.wav", "modified");
    const std::string deleted = folder.writeFile("deleted.wav", "deleted");
    const std::string unknown = folder.writeFile("unknown.wav", "unknown");
    {
        auto cache = makeCache();
        for (const auto& path : {kept, modified, deleted, unknown}) cache->SHAForFile(path);
        cache->persist();
    }
    setModificationTime(modified, kSomeSecond);
    fs::remove(deleted);

    auto reloaded = makeCache();
    EXPECT_EQ(reloaded->shaCache().size(), 2u);
    EXPECT_EQ(reloaded->shaCache().at(kept).stamp.mdate, dateAt(10'413'792'000, 123'456'789));
    EXPECT_EQ(std::tuple(reloaded->SHAForFile(kept), reloaded->SasIDForFile(kept), reloaded->SasIDForFile(unknown)),
              std::tuple(KSTSha256ForFileAtPath(kept), "sas:kept.wav", std::nullopt));
    EXPECT_EQ(calculatorCalls, 4) << "the kept files are not read again";
    EXPECT_TRUE(reloaded->dirty()) << "the dropped records are to be removed from the file";
    reloaded->persist();
    reloaded->waitUntilPersisted();
    EXPECT_EQ(storedSasIDs(cachePath), (std::map<std::string, std::string>{{kept, "sas:kept.wav"}, {unknown, ""}}));

    // Writes scheduled before a reload are seen by it, more than one batch of them.
    for (int i = 0; i < 5000; ++i) reloaded->SHAForFile(folder.writeFile("f" + std::to_string(i), std::to_string(i)));
    reloaded->persist();
    reloaded->loadCachedSHAData();
    EXPECT_EQ(reloaded->shaCache().size(), 5002u);
    EXPECT_FALSE(reloaded->dirty());
}

// A renamed file, or a file of a renamed folder, is known by its stamp and takes its record
// along; a hard link shares it; records of the format without devices are kept. Nothing is read again.
TEST_F(SHACacheTest, ARenamedFileKeepsItsRecordWithoutBeingRead) {
    const std::string a = folder.writeFile("d/a.wav", "a"), moved = folder / "e/a.wav", link = folder / "link.wav";
    auto cache = makeCache();
    const auto before = cache->recordForFile(a);
    fs::rename(folder / "d", folder / "e");
    fs::create_hard_link(moved, link);
    EXPECT_EQ(std::tuple(cache->recordForFile(moved), cache->recordForFile(link)), std::tuple(before, before));
    EXPECT_EQ(std::tuple(calculatorCalls.load(), cache->shaCache().contains(a), cache->shaCache().size()),
              std::tuple(1, false, 2u));
    cache.reset();

    std::string failure;
    auto database = DCISQLiteDatabase::open(cachePath, failure);
    ASSERT_TRUE(database && database->execute("ALTER TABLE records DROP COLUMN device") &&
                database->execute("PRAGMA user_version = 2"));
    database.reset();
    EXPECT_EQ(std::tuple(makeCache()->recordForFile(moved), calculatorCalls.load()), std::tuple(before, 1));
}

// A write the file refuses leaves the paths unsaved, so the next persist writes them.
TEST_F(SHACacheTest, AFailedWriteKeepsItsPathsForTheNextPersist) {
    const std::string path = folder.writeFile("a.wav", "content");
    auto cache = makeCache();
    std::string failure;
    auto other = DCISQLiteDatabase::open(cachePath, failure);
    ASSERT_TRUE(other->execute("CREATE TRIGGER refuse BEFORE INSERT ON records BEGIN SELECT RAISE(ABORT, 'no'); END"));
    cache->SHAForFile(path);
    LogSince log;
    for (const bool refused : {true, false}) {
        ASSERT_TRUE(refused || other->execute("DROP TRIGGER refuse"));
        cache->persist();
        cache->waitUntilPersisted();
        EXPECT_EQ(cache->dirty(), refused);
        EXPECT_EQ(storedSasIDs(cachePath).size(), refused ? 0u : 1u);
    }
    EXPECT_NE(log.text().find("Unable to write SHA cache " + cachePath), std::string::npos);
}

TEST_F(SHACacheTest, WorksInMemoryWhenItsFileCannotBeMade) {
    const std::string path = folder.writeFile("a.wav", "content");
    LogSince log;
    auto cache = DCISHACache::initWithCachePath(folder / "no such folder/sha.cache", countingCalculator());
    EXPECT_NE(log.text().find("caching in memory only"), std::string::npos);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(cache->SHAForFile(path), KSTSha256ForFileAtPath(path));
    EXPECT_EQ(calculatorCalls, 1);
    cache->persist();
    cache->waitUntilPersisted();
    EXPECT_FALSE(fs::exists(folder / "no such folder"));
}

// Each row makes a file at the cache path that cannot serve as the cache: it is set aside with
// its journal (an empty journal is one SQLite leaves alone), and an empty cache takes its place.
TEST_F(SHACacheTest, AnUnusableCacheFileIsSetAsideWithItsJournal) {
    std::string failure;
    const std::vector<std::pair<const char*, std::function<void()>>> rows = {
        {"text", [&] { std::ofstream(cachePath) << "path,sha\n/some/file,not a database\n"; }},
        {"foreign database", [&] { DCISQLiteDatabase::open(cachePath, failure)->execute("CREATE TABLE songs (title TEXT)"); }},
        {"damaged records", [&] {
             auto cache = makeCache();
             for (int i = 0; i < 100; ++i) cache->SHAForFile(folder.writeFile("damaged-" + std::to_string(i), "d"));
             cache.reset();
             // Overwrites the first table page: the file opens, and fails while its records are read.
             std::fstream file(cachePath, std::ios::in | std::ios::out | std::ios::binary);
             file.seekp(4096) << std::string(4096, '\xff');
         }},
    };
    const std::string path = folder.writeFile("a.wav", "content");
    for (const auto& [why, make] : rows) {
        SCOPED_TRACE(why);
        for (const auto& aside : setAsideFiles(folder)) fs::remove(aside);
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(cachePath + suffix);
        make();
        const std::string original = readWholeFile(cachePath);
        std::ofstream(cachePath + "-journal").flush();
        LogSince log;
        auto cache = makeCache();
        EXPECT_TRUE(cache->shaCache().empty());
        const auto asideFiles = setAsideFiles(folder);
        ASSERT_EQ(asideFiles.size(), 2u);
        const std::string aside = std::min(asideFiles[0], asideFiles[1]);
        EXPECT_EQ(readWholeFile(aside), original) << "nothing of the user's is lost";
        EXPECT_TRUE(fs::exists(aside + "-journal"));
        EXPECT_TRUE(log.text().find("SHA cache " + cachePath + " could not be used") != std::string::npos);

        cache->SHAForFile(path);
        cache.reset();
        EXPECT_EQ(makeCache()->shaCache().count(path), 1u);
        EXPECT_EQ(setAsideFiles(folder).size(), 2u);
    }
}

TEST_F(SHACacheTest, AProcessKilledWhileWritingLeavesACacheThatLoads) {
#ifdef KESTLY_UNDER_THREAD_SANITIZER
    GTEST_SKIP() << "the thread sanitizer does not allow threads in the child of a threaded fork";
#endif
    std::vector<std::string> paths;
    for (int i = 0; i < 500; ++i) paths.push_back(folder.writeFile("f" + std::to_string(i), std::to_string(i)));
    for (const int delayMilliseconds : {20, 70, 150, 300}) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {  // rewrites every record, round after round, until it is killed
            auto cache = DCISHACache::initWithCachePath(cachePath, nullptr);
            for (time_t round = kSomeSecond;; ++round) {
                for (const auto& path : paths) cache->cacheFile(path, false, DCIFileStamp{dateAt(round), 0, 0});
                cache->persist();
                cache->waitUntilPersisted();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMilliseconds));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        std::string failure;
        EXPECT_EQ(DCISQLiteDatabase::open(cachePath, failure)->queryText("PRAGMA integrity_check"), "ok");
        makeCache();
        EXPECT_TRUE(setAsideFiles(folder).empty()) << "after " << delayMilliseconds << " ms";
    }
}

TEST_F(SHACacheTest, LookupsFromSeveralThreadsRunAlongsideChangesAndPersist) {
    std::vector<std::string> paths;
    std::vector<std::optional<std::string>> hashes;
    for (int i = 0; i < 40; ++i) {
        paths.push_back(folder.writeFile("f" + std::to_string(i), "content " + std::to_string(i)));
        hashes.push_back(KSTSha256ForFileAtPath(paths.back()));
    }
    auto cache = makeCache();
    std::atomic<int> wrongAnswers{0};
    whileRepeatedOnThreads(4, [&] {
        for (size_t i = 0; i < paths.size(); ++i) {
            if (cache->SHAForFile(paths[i]) != hashes[i]) ++wrongAnswers;
            if (cache->SasIDForFile(paths[i]) != "sas:f" + std::to_string(i)) ++wrongAnswers;
        }
    }, [&] {
        // New modification times turn lookups into misses, so records keep changing under the readers.
        for (int round = 0; round < 60; ++round) {
            setModificationTime(paths[static_cast<size_t>(round) % paths.size()], kSomeSecond + round);
            cache->persist();
            if (round == 30) cache->loadCachedSHAData();
            std::this_thread::sleep_for(1ms);
        }
    });
    EXPECT_EQ(wrongAnswers, 0);

    // A lookup that read a file's stamp before a change may store its record last; one more
    // pass brings every record up to date before the file is checked.
    for (const auto& path : paths) cache->SHAForFile(path);
    cache.reset();
    const auto records = makeCache()->shaCache();
    ASSERT_EQ(records.size(), paths.size());
    for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(records.at(paths[i]).sha, hashes[i]);
}

}  // namespace
