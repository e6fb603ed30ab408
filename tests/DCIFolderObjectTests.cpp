#include "CoreKestly/FileSystem/DCICachedFileQueries.h"

#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"
#include "CoreKestly/FileSystem/DCISHACache.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"
#include "support/Testing.h"

#include <algorithm>
#include <cctype>

namespace {

template <class Set>
std::set<std::string> relativePaths(const Set& items) {
    std::set<std::string> paths;
    for (const auto& item : items) paths.insert(item->relativePath());
    return paths;
}

// Trees whose files of interest are Live sets (by extension), "project.json" files (by name)
// and wav samples, hashed through two real caches. The sasID calculator counts its calls,
// which happen once per cache miss.
class DCIFolderObjectTests : public ::testing::Test {
protected:
    DCIFolderObjectTests() {
        auto calculator = [this](const std::string& path) -> std::optional<std::string> {
            ++calculatorCalls;
            return "sas-" + KestlyPath::lastComponent(path);
        };
        primaryCache = DCISHACache::initWithCachePath(caches / "primary.sqlite", calculator);
        sampleCache = DCISHACache::initWithCachePath(caches / "secondary.sqlite", calculator);
        queries = std::make_shared<DCICachedFileQueries>(DCIFileKinds{{"als"}, {"project.json"}, {"wav"}},
                                                         primaryCache, sampleCache);
    }

    std::shared_ptr<DCIFolderObject> buildTree() {
        return DCIFolderObject::initWithPath(root.path().string(), nullptr, queries);
    }
    std::shared_ptr<DCIFileObject> fileNamed(const std::string& name) {
        return DCIFileObject::initWithFileName(name, buildTree());
    }

    static std::shared_ptr<DCIFolderObject> folderAt(const std::shared_ptr<DCIFolderObject>& tree,
                                                     const std::string& relativePath) {
        auto folder = tree;
        for (const auto& name : KestlyPath::components(relativePath)) folder = folder->subFolders()->at(name);
        return folder;
    }

    TemporaryDirectory root;
    TemporaryDirectory caches;
    std::atomic<int> calculatorCalls{0};
    std::shared_ptr<DCISHACache> primaryCache;
    std::shared_ptr<DCISHACache> sampleCache;
    std::shared_ptr<DCIFileQueries> queries;
};

TEST_F(DCIFolderObjectTests, ScanTakesEveryFolderAndTheFilesOfInterest) {
    // ".wav" is hidden, with no extension; "Kit.als" is a folder, whatever its name.
    root.writeFiles({"Song.ALS", "notes.txt", "kick.WAV", ".hidden.wav", ".wav", "song.als.bak", "sub/project.json",
                     "sub/other.json", ".git/objects/blob.wav"});
    for (const char* folder : {"empty", "Kit.als"}) root.makeFolder(folder);

    EXPECT_EQ(DCIFolderObject::initWithPath(root / "missing", nullptr, queries), nullptr);
    EXPECT_TRUE(DCIFolderObject::initWithPath(root / "notes.txt", nullptr, queries)->files()->empty());
    const auto tree = buildTree();
    EXPECT_EQ(relativePaths(tree->gatherFiles()),
              (std::set<std::string>{"Song.ALS", "kick.WAV", ".hidden.wav", "sub/project.json", ".git/objects/blob.wav"}));
    EXPECT_EQ(relativePaths(tree->gatherFolders()), (std::set<std::string>{"sub", "empty", "Kit.als", ".git", ".git/objects"}));
    const auto objects = folderAt(tree, ".git/objects");
    EXPECT_EQ(std::tuple(objects->parent(), objects->root()), std::tuple(folderAt(tree, ".git"), tree));
    // A folder's snapshots hold its subtree, without itself.
    EXPECT_EQ(relativePaths(folderAt(tree, ".git")->gatherFiles()), std::set<std::string>{".git/objects/blob.wav"});
    EXPECT_FALSE(tree->gatherFolders().contains(tree));
    EXPECT_TRUE(folderAt(tree, "empty")->gatherFolders().empty());
}

// Links count as what they lead to. Names of interest on entries that could never be hashed
// (a FIFO, a device) stay out: any of them in the tree would make every hashing pass answer NO.
TEST_F(DCIFolderObjectTests, OnlyFoldersAndRegularFilesEnterTheTreeThroughLinks) {
    root.writeFiles({"real/kick.wav", "real/readme.txt"});
    root.makeFolder("Kit.wav");
    fs::create_directory_symlink(caches.makeFolder("outside"), root / "linked");
    fs::create_symlink(root / "real/kick.wav", caches / "outside/kick.wav");
    fs::create_symlink(root / "real/kick.wav", root / "alias.wav");
    fs::create_symlink(root / "real/readme.txt", root / "alias.txt.wav");
    fs::create_symlink(root / "real/readme.txt", root / "alias.txt");
    fs::create_symlink(root / "nowhere.wav", root / "dangling.wav");
    fs::create_symlink(root / "nowhere", root / "dangling-folder");
    ASSERT_EQ(mkfifo((root / "pipe.wav").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", root / "null.wav");

    const auto tree = buildTree();
    EXPECT_EQ(relativePaths(tree->gatherFolders()), (std::set<std::string>{"real", "linked", "Kit.wav"}));
    EXPECT_EQ(relativePaths(tree->gatherFiles()),
              (std::set<std::string>{"real/kick.wav", "linked/kick.wav", "alias.wav", "alias.txt.wav"}));
    EXPECT_EQ(folderAt(tree, "linked")->files()->at("kick.wav")->absolutePath(), root / "linked/kick.wav");

    // Updates keep the rule: a known folder stays one, a FIFO in a file's place removes it.
    EXPECT_FALSE(tree->updateItemAtSubPath("Kit.wav"));
    EXPECT_FALSE(tree->updateItemAtSubPath("pipe.wav"));
    fs::rename(root / "pipe.wav", root / "alias.wav");
    EXPECT_TRUE(tree->updateItemAtSubPath("alias.wav"));
    EXPECT_FALSE(tree->files()->contains("alias.wav"));
    EXPECT_TRUE(tree->generateHashes());
}

// Each real folder is listed once: at its own path, else at the first link that reaches it.
TEST_F(DCIFolderObjectTests, EachFolderIsListedOnceWhateverTheLinks) {
    root.writeFiles({"a/b/deep.wav", "p/r.wav", "q/s.wav"});
    fs::create_directory_symlink("..", root / "a/up");           // to the root
    fs::create_directory_symlink(".", root / "self");            // to itself
    fs::create_directory_symlink("../../a", root / "a/b/toA");   // to its grandparent
    fs::create_directory_symlink("../q", root / "p/toQ");        // two siblings that lead to
    fs::create_directory_symlink("../p", root / "q/toP");        // each other
    // A link bomb: each level links twice to the next, 2^11 paths to the bottom.
    caches.makeFolder("L0");
    for (int level = 0; level < 11; ++level) {
        const auto next = caches / ("L" + std::to_string(level + 1));
        fs::create_directories(next);
        for (const char* name : {"a", "b"}) fs::create_directory_symlink(next, caches / ("L" + std::to_string(level) + "/" + name));
    }
    caches.writeFile("L11/x.wav", "x");
    fs::create_directory_symlink(caches / "L0", root / "L0");

    const auto tree = buildTree();
    std::set<std::string> folders{"a", "a/up", "a/b", "a/b/toA", "self", "p", "p/toQ", "q", "q/toP", "L0"};
    std::string chain = "L0";
    for (int level = 0; level < 11; ++level) folders.insert({chain + "/b", chain += "/a"});
    EXPECT_EQ(relativePaths(tree->gatherFolders()), folders);
    EXPECT_EQ(relativePaths(tree->gatherFiles()), (std::set<std::string>{"a/b/deep.wav", "p/r.wav", "q/s.wav", chain + "/x.wav"}));

    // The same guard holds for a loop that appears later.
    fs::create_directory_symlink("..", root / "a/b/again");
    const auto b = folderAt(tree, "a/b");
    EXPECT_TRUE(b->updateItemAtSubPath("again"));
    EXPECT_TRUE(folderAt(tree, "a/b/again")->subFolders()->empty());
}

TEST_F(DCIFolderObjectTests, AnUnlistableFolderHasNoEntries) {
    if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind the superuser";
    root.writeFile("locked/kick.wav", "abc");
    fs::permissions(root / "locked", fs::perms::none);
    const auto tree = buildTree();
    EXPECT_EQ(relativePaths(tree->gatherFolders()), std::set<std::string>{"locked"});
    EXPECT_TRUE(tree->gatherFiles().empty());
}

// A vanished file makes the pass answer NO and leaves the tree, but every other file is still hashed.
TEST_F(DCIFolderObjectTests, GenerateHashesFillsEveryFileThroughTheCaches) {
    root.writeFiles({"Song.als", "a/b/kick.wav", "a/b/gone.wav", "a/snare.wav", "a/project.json"});
    const auto tree = buildTree();
    fs::remove(root / "a/b/gone.wav");
    EXPECT_FALSE(tree->generateHashes());
    EXPECT_EQ(std::tuple(folderAt(tree, "a/b")->files()->size(), calculatorCalls.load()), std::tuple(1u, 4));
    // Primary files by extension or name go to the primary cache, samples to the other.
    const auto paths = [](const auto& cache) {
        std::set<std::string> keys;
        for (const auto& [path, record] : cache->shaCache()) keys.insert(path);
        return keys;
    };
    EXPECT_EQ(paths(primaryCache), (std::set<std::string>{root / "Song.als", root / "a/project.json"}));
    EXPECT_EQ(paths(sampleCache), (std::set<std::string>{root / "a/b/kick.wav", root / "a/snare.wav"}));
}

TEST_F(DCIFolderObjectTests, ATreeWhoseQueriesAreGoneSeesNoFileOfInterestAndHashesByItself) {
    root.writeFile("a/kick.wav", "abc");
    const auto tree = buildTree();
    const auto a = folderAt(tree, "a");
    queries.reset();

    EXPECT_TRUE(tree->generateHashes());
    const auto kick = a->files()->at("kick.wav");
    EXPECT_EQ(std::tuple(kick->fileHash(), kick->sasID(), calculatorCalls.load()), std::tuple(kSHA256OfABC, std::nullopt, 0));

    a->buildFileAndFolderList();
    EXPECT_TRUE(a->files()->empty());
}

// An update replaces a dictionary, never changes one handed out: readers keep their snapshot.
TEST_F(DCIFolderObjectTests, UpdateAddsRefreshesAndRemovesFilesOfInterest) {
    root.writeFiles({"a/kick.wav", "notes.txt"});
    const auto tree = buildTree();
    ASSERT_TRUE(tree->generateHashes());
    const auto a = folderAt(tree, "a");
    const auto before = a->files();
    const auto oldKick = before->at("kick.wav");
    for (const char* name : {"never-there.wav", "notes.txt", "a/kick.wav", "..", ""}) {
        EXPECT_FALSE(tree->updateItemAtSubPath(name)) << name;
    }

    root.writeFile("a/snare.wav", "new");
    EXPECT_TRUE(a->updateItemAtSubPath("snare.wav"));
    EXPECT_EQ(a->files()->at("snare.wav")->sasID(), std::nullopt) << "an updated file is not hashed yet";
    root.writeFile("a/kick.wav", "changed");
    EXPECT_TRUE(a->updateItemAtSubPath("kick.wav"));
    const auto newKick = a->files()->at("kick.wav");
    EXPECT_TRUE(newKick != oldKick && !newKick->sasID());
    fs::remove(root / "a/snare.wav");
    EXPECT_TRUE(a->updateItemAtSubPath("snare.wav"));
    EXPECT_FALSE(a->files()->contains("snare.wav"));

    EXPECT_EQ(std::tuple(before->size(), before->at("kick.wav"), oldKick->sasID()), std::tuple(1u, oldKick, "sas-kick.wav"));
}

TEST_F(DCIFolderObjectTests, UpdateAddsANewFolderWithItsSubtreeKeepsAKnownOneAndRemovesAVanishedOne) {
    root.writeFile("a/kick.wav", "abc");
    const auto tree = buildTree();
    const auto a = folderAt(tree, "a");
    root.writeFile("a/kick.wav", "changed");
    EXPECT_FALSE(tree->updateItemAtSubPath("a"));
    EXPECT_EQ(folderAt(tree, "a"), a);

    root.writeFile("new/deeper/snare.wav", "abc");
    EXPECT_TRUE(tree->updateItemAtSubPath("new"));
    EXPECT_EQ(relativePaths(folderAt(tree, "new")->gatherFiles()), std::set<std::string>{"new/deeper/snare.wav"});
    EXPECT_EQ(folderAt(tree, "new")->parent(), tree);

    fs::remove_all(root / "a");
    EXPECT_TRUE(tree->updateItemAtSubPath("a"));
    EXPECT_EQ(relativePaths(tree->gatherFolders()), (std::set<std::string>{"new", "new/deeper"}));
    fs::remove_all(root.path());
    EXPECT_FALSE(tree->exists());
}

TEST_F(DCIFolderObjectTests, SearchFindsTheNearestMatchFirst) {
    root.writeFiles({"a/b/deep.wav", "a/near.wav"});
    root.writeFile("z/unique.wav", "unique");
    const auto tree = buildTree();

    EXPECT_FALSE(tree->searchForFileWithHash(std::nullopt) || tree->searchForFileWithSasID(std::nullopt) ||
                 tree->searchForFileWithHash(std::string(64, '0')));

    // Files without a hash are hashed by the search itself.
    const auto near = tree->searchForFileWithHash(kSHA256OfABC);
    EXPECT_EQ(near->relativePath(), "a/near.wav");
    EXPECT_EQ(folderAt(tree, "a/b")->searchForFileWithHash(kSHA256OfABC)->relativePath(), "a/b/deep.wav");

    // sasIDs are only compared once stored.
    EXPECT_EQ(tree->searchForFileWithSasID("sas-unique.wav"), nullptr);
    ASSERT_TRUE(tree->generateHashes());
    const auto unique = tree->searchForFileWithSasID("sas-unique.wav");
    EXPECT_EQ(unique->relativePath(), "z/unique.wav");
    EXPECT_EQ(tree->searchForFileWithHash(unique->fileHash()), unique);
}

TEST_F(DCIFolderObjectTests, ReadersKeepAnUnchangingDictionaryWhileUpdatesRun) {
    root.writeFile("a/kick.wav", "abc");
    const auto a = folderAt(buildTree(), "a");
    const std::set<std::set<std::string>> possible = {{"kick.wav"}, {"kick.wav", "snare.wav"}};
    std::atomic<int> unexpected{0};
    whileRepeatedOnThreads(1, [&] {
        const auto files = a->files();
        std::set<std::string> names;
        for (const auto& [name, file] : *files) names.insert(file->name());
        if (!possible.contains(names) || names.size() != files->size()) ++unexpected;
    }, [&] {
        for (int round = 0; round < 200; ++round) {
            root.writeFile("a/snare.wav", "abc");
            EXPECT_TRUE(a->updateItemAtSubPath("snare.wav"));
            fs::remove(root / "a/snare.wav");
            EXPECT_TRUE(a->updateItemAtSubPath("snare.wav"));
        }
    });
    EXPECT_EQ(unexpected, 0);
}

// None but the regular file could ever be hashed; opening a FIFO without a writer could block.
TEST_F(DCIFolderObjectTests, IsMadeOnlyForARegularFile) {
    root.writeFile("kick.wav", "abc");
    fs::create_symlink(root / "missing.wav", root / "dangling.wav");
    ASSERT_EQ(mkfifo((root / "pipe.wav").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", root / "null.wav");
    root.makeFolder("folder.wav");
    ASSERT_NE(fileNamed("kick.wav"), nullptr);
    for (const char* name : {"missing.wav", "dangling.wav", "pipe.wav", "null.wav", "folder.wav"}) {
        EXPECT_EQ(fileNamed(name), nullptr) << name;
    }
    EXPECT_EQ(DCIFileObject::initWithFileName("kick.wav", nullptr), nullptr);
    if (geteuid() != 0) {  // permissions do not bind the superuser
        ASSERT_EQ(chmod((root / "kick.wav").c_str(), 0), 0);
        EXPECT_EQ(fileNamed("kick.wav"), nullptr);
    }
}

// Setting the modification time stamps the status-change time with now, a visibly different clock.
TEST_F(DCIFolderObjectTests, DatesAreTheWholeSecondsOfTheTargetReadWhenAskedAndKeptWhenItIsGone) {
    const std::string target = root.writeFile("samples/kick.wav", "abc");
    fs::create_symlink(target, root / "link.wav");
    const auto file = fileNamed("link.wav");
    // 2001, 1969 (rounded down) and 2300, past what 64-bit nanoseconds reach.
    for (const time_t seconds : {1'000'000'000L, -1L, 10'413'792'000L}) {
        setModificationTime(target, seconds, 700'000'000);
        EXPECT_NE(file->modifiedDate().timeIntervalSince1970(), static_cast<double>(seconds)) << "read only when asked";
        EXPECT_TRUE(file->updateAttributes());
        struct stat status;
        ASSERT_EQ(stat(target.c_str(), &status), 0);
        EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), static_cast<double>(seconds));
        EXPECT_EQ(file->createdDate().timeIntervalSince1970(), static_cast<double>(status.st_ctim.tv_sec));
    }
    const DCIDate created = file->createdDate();
    fs::remove(target);
    EXPECT_FALSE(file->updateAttributes());
    EXPECT_EQ(std::pair(file->modifiedDate().timeIntervalSince1970(), file->createdDate()), std::pair(10'413'792'000.0, created));
}

// Files and folders meet by absolute path: those of another build of the same tree serve, those
// of another tree never do. A file let go by its tree keeps its path.
TEST_F(DCIFolderObjectTests, PathsAndIdentityFollowTheAbsolutePath) {
    for (const char* folder : {"a/b/c", "a/d", "x/y"}) root.makeFolder(folder);
    root.writeFiles({"top.wav", "a/b/deep.wav"});
    auto tree = buildTree();
    {  // the rows hold on to folders of the tree
        const auto otherBuild = buildTree();
        TemporaryDirectory elsewhere;
        elsewhere.makeFolder("a/b");
        const auto unrelated = DCIFolderObject::initWithPath(elsewhere.path().string(), nullptr, queries);
        const std::vector<std::tuple<std::string, std::shared_ptr<DCIFolderObject>, std::optional<std::string>>> rows = {
            {"a/d", folderAt(tree, "a/b"), "../d"},           // siblings
            {"a/b", folderAt(tree, "a/b"), ""},               // itself
            {"a", folderAt(tree, "a/b/c"), "../.."},          // an ancestor
            {"a/b/c", tree, "a/b/c"},                         // below
            {"a/b/c", folderAt(tree, "x/y"), "../../a/b/c"},  // cousins
            {"a/b/c", folderAt(otherBuild, "a/d"), "../b/c"}, {"a/b/c", folderAt(unrelated, "a/b"), std::nullopt},
            {"a/b/c", nullptr, std::nullopt},
        };
        for (const auto& [from, to, expected] : rows) EXPECT_EQ(folderAt(tree, from)->pathRelativeToFolder(to), expected) << from;
        EXPECT_EQ((DCIFolderSet{folderAt(tree, "a"), folderAt(otherBuild, "a"), folderAt(tree, "x")}.size()), 2u);
    }

    const auto top = tree->files()->at("top.wav");
    auto b = folderAt(tree, "a/b");
    const auto deep = b->files()->at("deep.wav");
    EXPECT_EQ(std::tuple(deep->absolutePath(), deep->relativePath()), std::tuple(root / "a/b/deep.wav", "a/b/deep.wav"));
    root.writeFile("top.wav", "different content");
    const auto topAgain = buildTree()->files()->at("top.wav");
    EXPECT_NE(top, topAgain);
    EXPECT_EQ((DCIFileSet{top, topAgain, deep}.size()), 2u);
    // A folder at the file's path is something else.
    const auto folderAtFilePath = DCIFolderObject::initWithPath(top->absolutePath(), nullptr, queries);
    EXPECT_FALSE(top->isEqual(*folderAtFilePath) || folderAtFilePath->isEqual(*top));

    const uint64_t identity = deep->hash();
    fs::rename(root / "a", root / "renamed");
    tree.reset();
    b.reset();
    EXPECT_EQ(std::tuple(deep->parent(), deep->absolutePath(), deep->hash(), deep->relativePath()),
              std::tuple(nullptr, root / "a/b/deep.wav", identity, "deep.wav"));
    EXPECT_EQ(deep->pathRelativeToFolder(buildTree()), std::nullopt);
}

// A hash is computed on first use, by every thread that asks for it at once, and then kept.
TEST_F(DCIFolderObjectTests, FileHashIsComputedOnFirstUseAndThenKept) {
    const std::string path = root.writeFile("kick.wav", "abc");
    const auto file = fileNamed("kick.wav");
    std::vector<std::optional<std::string>> answers(8);
    startThreads(8, [&](int i) { answers[size_t(i)] = file->fileHash(); });
    for (const auto& answer : answers) EXPECT_EQ(answer, kSHA256OfABC);
    fs::remove(path);
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a stored hash is not recomputed";
    // Held as its 32 bytes: hex of either case reads back in lower case, any other text stores none.
    std::string upperCase(kSHA256OfABC);
    std::ranges::transform(upperCase, upperCase.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> rows = {
        {upperCase, kSHA256OfABC}, {"not a hash", std::nullopt}, {std::string(64, 'g'), std::nullopt}, {std::nullopt, std::nullopt}};
    for (const auto& [given, kept] : rows) {
        file->setFileHash(given);
        EXPECT_EQ(file->fileHash(), kept) << given.value_or("none");
    }
    root.writeFile("kick.wav", "abc");
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a failed computation is tried again";
}

}  // namespace
