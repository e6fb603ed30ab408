#include "CoreKestly/Actions/DCIAction.h"

#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/Events/DCIEvent.h"
#include "CoreKestly/FileManager/DCIFileManager.h"
#include "support/EventRecorder.h"
#include "support/LogReading.h"
#include "support/Testing.h"

namespace {

using Disk = std::function<void(const std::string& root)>;
using Lines = std::vector<std::string>;

void write(const std::string& root, const std::string& path, const std::string& contents) {
    fs::create_directories(fs::path(root + "/" + path).parent_path());
    std::ofstream(root + "/" + path) << contents;
}
void move(const std::string& root, const std::string& from, const std::string& to) {
    fs::rename(root + "/" + from, root + "/" + to);
}
void remove(const std::string& root, const std::string& path) { fs::remove_all(root + "/" + path); }

// An event as a line naming its paths relative to the root, "moved file a.wav -> b.wav".
std::string describe(const DCIEvent& event, const std::string& root) {
    auto path = [&](std::string_view key) {
        const auto value = event.contextValue(key);
        const auto object = value ? value->object() : nullptr;
        return object ? object->description().substr(root.size() + 1) : std::string("?");
    };
    switch (event.type()) {
        case DCIEventTypeFileAdded: return "added file " + path(kDCIFileObject);
        case DCIEventTypeFolderAdded: return "added folder " + path(kDCIFolderObject);
        case DCIEventTypeFileRemoved: return "removed file " + path(kDCIOldFileObject);
        case DCIEventTypeFolderRemoved: return "removed folder " + path(kDCIOldFolderObject);
        case DCIEventTypeFileMoved: return "moved file " + path(kDCIOldFileObject) + " -> " + path(kDCIFileObject);
        case DCIEventTypeFolderMoved: return "moved folder " + path(kDCIOldFolderObject) + " -> " + path(kDCIFolderObject);
        case DCIEventTypeFileModified: return "modified " + path(kDCIFileObject);
        default: return "event " + std::to_string(event.type());
    }
}

class DCIFileManagerTests : public ::testing::Test {
protected:
    DCIFileManagerTests() {
        manager->addPrimaryFileExtension("ALS");
        manager->addSecondaryFileExtension("wav");
    }

    ~DCIFileManagerTests() override {
        if (manager->started()) {
            manager->stop();
            waitFor(DCIEventTypeFileManagerStopped);
        }
    }

    void start(const std::string& rootPath) {
        manager->startWatchingRootFolder(rootPath, directory / "primary.sqlite", directory / "secondary.sqlite",
                                         nullptr);
    }
    bool startedOnRoot() {
        start(root);
        return waitFor(DCIEventTypeFileManagerReady);
    }

    std::vector<uint64_t> types() const { return recorder->typesOfCategory(DCIEventCategoryCommon); }

    bool waitFor(uint64_t type, size_t count = 1) {
        return pumpMainLoopUntil([&] { return std::ranges::count(types(), type) >= static_cast<long>(count); }, 10s);
    }

    // The change events of the passes that see what `change` did to the disk. A file written
    // after it marks the pass that must report it; events of that pass after the marker's
    // own are gathered too.
    Lines changesAfter(const Disk& change) {
        recorder->events.clear();
        change(root);
        const std::string marker = "marker-" + std::to_string(++markers) + ".wav";
        write(root, marker, marker);
        const auto isMarker = [&](const auto& event) { return describe(*event, root) == "added file " + marker; };
        EXPECT_TRUE(pumpMainLoopUntil([&] { return std::ranges::any_of(recorder->events, isMarker); }, 10s));
        pumpMainLoopBriefly();
        Lines changes;
        for (const auto& event : recorder->events) {
            const bool isChange = event->type() >= DCIEventTypeFileAdded && event->type() <= DCIEventTypeFileModified;
            if (isChange && !isMarker(event)) changes.push_back(describe(*event, root));
        }
        return changes;
    }

    TemporaryDirectory directory;
    const std::string root = directory.makeFolder("root");
    ListeningRecorder recorder;
    std::shared_ptr<DCIFileManager> manager = DCIFileManager::init();
    int markers = 0;
};

TEST_F(DCIFileManagerTests, EachKindOfChangeIsReportedAsTheEventsOfOnePass) {
    struct Case { const char* name; Disk before, change; Lines expected; };
    const Case cases[] = {
        {"rename", [](auto& r) { write(r, "a/x.wav", "1"); }, [](auto& r) { move(r, "a/x.wav", "a/y.wav"); },
         {"moved file a/x.wav -> a/y.wav"}},
        {"copy", [](auto& r) { write(r, "x.wav", "1"); }, [](auto& r) { fs::copy(r + "/x.wav", r + "/y.wav"); },
         {"added file y.wav"}},
        {"move plus copy", [](auto& r) { write(r, "x.wav", "1"); fs::create_directory(r + "/a"); },
         [](auto& r) { move(r, "x.wav", "a/x.wav"); fs::copy(r + "/a/x.wav", r + "/y.wav"); },
         {"moved file x.wav -> a/x.wav", "moved file x.wav -> y.wav"}},
        {"twins deleted, one created", [](auto& r) { write(r, "t1.wav", "same"); write(r, "t2.wav", "same"); },
         [](auto& r) { remove(r, "t1.wav"); remove(r, "t2.wav"); write(r, "n.wav", "same"); },
         {"moved file t2.wav -> n.wav", "removed file t1.wav"}},
        {"folder rename", [](auto& r) { write(r, "d/x.wav", "1"); }, [](auto& r) { move(r, "d", "e"); },
         {"moved folder d -> e"}},
        {"folder renamed, every file changed", [](auto& r) { write(r, "d/x.wav", "1"); },
         [](auto& r) { move(r, "d", "e"); write(r, "e/x.wav", "2"); }, {"added folder e", "removed folder d"}},
        {"deep new tree", nullptr, [](auto& r) { write(r, "n/m/o/x.wav", "1"); }, {"added folder n"}},
        {"deep tree deleted", [](auto& r) { write(r, "n/m/o/x.wav", "1"); }, [](auto& r) { remove(r, "n"); },
         {"removed folder n"}},
        {"empty folders", [](auto& r) { fs::create_directory(r + "/old"); },
         [](auto& r) { remove(r, "old"); fs::create_directory(r + "/new"); }, {"added folder new", "removed folder old"}},
        {"file moved out of a deleted folder", [](auto& r) { write(r, "d/x.wav", "1"); },
         [](auto& r) { move(r, "d/x.wav", "x.wav"); remove(r, "d"); }, {"removed folder d", "added file x.wav"}},
        {"new folder with selection", [](auto& r) { write(r, "A/a.wav", "a"); write(r, "B/b.wav", "b"); },
         [](auto& r) { fs::create_directory(r + "/X"); move(r, "A", "X/A"); move(r, "B", "X/B"); },
         {"added folder X", "moved folder A -> X/A", "moved folder B -> X/B"}},
        {"folder renamed into a new folder", [](auto& r) { write(r, "A/a.wav", "a"); write(r, "A/s/b.wav", "b"); },
         [](auto& r) { fs::create_directory(r + "/X"); move(r, "A", "X/C"); }, {"added folder X", "moved folder A -> X/C"}},
        // A file that can never be read holds back neither the start nor any pass.
        {"an unreadable file", [](auto& r) { fs::create_symlink("/proc/self/mem", r + "/evil.wav"); },
         [](auto& r) { write(r, "x.wav", "1"); }, {"added file x.wav"}},
        // Writes closer together than the quiet period make one pass and one event.
        {"in-place changes and files of no interest", [](auto& r) { write(r, "x.als", "0"); },
         [](auto& r) {
             for (const char* step : {"1", "2", "3", "4"}) {
                 write(r, "x.als", step);
                 std::this_thread::sleep_for(100ms);
             }
             write(r, "notes.txt", "2");
         },
         {"modified x.als"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        remove(root, "");
        fs::create_directory(root);
        if (test.before) test.before(root);
        ASSERT_TRUE(startedOnRoot());
        EXPECT_EQ(changesAfter(test.change), test.expected);
        manager->stop();
        ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));
        recorder->events.clear();
    }
}

TEST_F(DCIFileManagerTests, FoldersAndLinksThatAppearAreWatchedToo) {
    ASSERT_TRUE(startedOnRoot());
    fs::create_directory(directory / "outside");
    EXPECT_EQ(changesAfter([&](auto& r) {
                  fs::create_directory(r + "/new");
                  fs::create_directory_symlink(directory / "outside", r + "/link");
              }),
              (Lines{"added folder link", "added folder new"}));
    // A renamed folder keeps its folders watched, also next to a sibling whose name extends its own.
    fs::create_directories(root + "/Drums/Sub");
    fs::create_directory(root + "/Drums 2");
    changesAfter([](auto&) {});
    EXPECT_EQ(changesAfter([](auto& r) { move(r, "Drums", "Perc"); }),
              (Lines{"added folder Perc", "removed folder Drums"}));  // no file to pair them
    EXPECT_EQ(changesAfter([](auto& r) { fs::create_directory(r + "/Perc/Sub/New"); }), Lines{"added folder Perc/Sub/New"});
    // The stream does not wait for the marker's pass: a change in the new folders alone is told.
    recorder->events.clear();
    write(root, "new/x.wav", "1");
    write(directory / "outside", "y.wav", "2");
    write(root, "Perc/Sub/New/z.wav", "3");
    EXPECT_TRUE(pumpMainLoopUntil([&] { return recorder->events.size() >= 3; }, 10s));
    pumpMainLoopBriefly();
    Lines changes;
    for (const auto& event : recorder->events) changes.push_back(describe(*event, root));
    std::ranges::sort(changes);
    EXPECT_EQ(changes, (Lines{"added file Perc/Sub/New/z.wav", "added file link/y.wav", "added file new/x.wav"}));
}

TEST_F(DCIFileManagerTests, StartAndStopPostReadyRootRemovedAndStoppedInOrder) {
    manager->stop();  // not started: stopped at once
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));

    recorder->events.clear();
    start(directory / "missing");
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));
    EXPECT_EQ(types(), (std::vector<uint64_t>{DCIEventTypeRootFolderRemoved, DCIEventTypeFileManagerReady,
                                              DCIEventTypeFileManagerStopped}));
    EXPECT_FALSE(manager->started());

    // A restart ends the running watcher before the new one starts.
    recorder->events.clear();
    ASSERT_TRUE(startedOnRoot());
    start(root);
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerReady, 2));
    EXPECT_EQ(types(), (std::vector<uint64_t>{DCIEventTypeFileManagerReady, DCIEventTypeFileManagerStopped,
                                              DCIEventTypeFileManagerReady}));
    EXPECT_EQ(changesAfter([](auto& r) { write(r, "x.wav", "1"); }), Lines{"added file x.wav"});

    recorder->events.clear();
    remove(root, "");
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));
    EXPECT_EQ(types(), (std::vector<uint64_t>{DCIEventTypeRootFolderRemoved, DCIEventTypeFileManagerStopped}));
    EXPECT_TRUE(manager->started());
}

// A stop cuts the first hash short and is final: no ready nor progress, no tree left once it
// is told, and a change just before it is no removed root.
TEST_F(DCIFileManagerTests, AStopIsPromptAndFinal) {
    std::ofstream(root + "/big.wav") << "x";
    fs::resize_file(root + "/big.wav", std::uintmax_t{8} << 30);
    bool treeGoneWhenStopped = false;
    recorder->onEvent = [&](const auto& event) {
        if (event->type() == DCIEventTypeFileManagerStopped) treeGoneWhenStopped = !manager->rootFolder();
    };
    start(root);
    // The listed tree is told before its file is hashed.
    ASSERT_TRUE(waitFor(DCIEventTypeFirstScanProgress));
    const auto count = [&](std::string_view key) { return recorder->events.front()->contextValue(key).value().uint64Value().value(); };
    EXPECT_EQ(std::tuple(count(kDCIFileManagerScanFilesKey), count(kDCIFileManagerScanFilesHashedKey), count(kDCIFileManagerScanBytesKey),
                         count(kDCIFileManagerScanBytesHashedKey)), std::tuple(1u, 0u, std::uint64_t{8} << 30, 0u));
    recorder->events.clear();
    manager->stop();
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));
    EXPECT_EQ(std::tuple(types(), treeGoneWhenStopped), std::tuple(std::vector<uint64_t>{DCIEventTypeFileManagerStopped}, true));

    fs::remove(root + "/big.wav");
    for (const char* name : {"a.wav", "b.wav", "c.wav"}) {
        recorder->events.clear();
        ASSERT_TRUE(startedOnRoot());
        write(root, name, name);
        manager->stop();
        ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));
        EXPECT_EQ(types(), (std::vector<uint64_t>{DCIEventTypeFileManagerReady, DCIEventTypeFileManagerStopped}));
        remove(root, name);  // a first scan with files tells its progress too
    }

    // A pass still telling of many new files when shutdown() stops the shared instance tells
    // nothing once it returned.
    recorder->events.clear();
    const auto shared = DCIFileManager::sharedFileManager();
    shared->addSecondaryFileExtension("wav");
    shared->startWatchingRootFolder(root, directory / "shared.sqlite", directory / "shared-samples.sqlite", nullptr);
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerReady));
    std::optional<DCIDate> stoppedAt;
    recorder->onEvent = [&](const auto&) { if (!stoppedAt) { DCIFileManager::shutdown(); stoppedAt = DCIDate::now(); } };
    for (int i = 0; i < 5000; ++i) write(root, std::to_string(i) + ".wav", std::to_string(i));
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerStopped));
    EXPECT_EQ(std::ranges::count_if(recorder->events, [&](const auto& event) { return *event->timestamp() > *stoppedAt; }), 1);
}

// A file written without pause (a recording) holds back no other change, and is told once settled.
TEST_F(DCIFileManagerTests, AFileWrittenWithoutPauseHoldsBackNoOtherChange) {
    ASSERT_TRUE(startedOnRoot());
    recorder->events.clear();
    std::atomic<bool> recording = true;
    auto writer = startThreads(1, [&](int) {
        std::ofstream take(root + "/take.wav");
        for (; recording; std::this_thread::sleep_for(50ms)) take << "x" << std::flush;
    });
    write(root, "other.wav", "1");
    EXPECT_TRUE(pumpMainLoopUntil([&] { return !recorder->events.empty(); }, 10s));
    pumpMainLoopBriefly();
    Lines whileRecording;
    for (const auto& event : recorder->events) whileRecording.push_back(describe(*event, root));
    recording = false;
    writer.clear();
    EXPECT_EQ(whileRecording, Lines{"added file other.wav"});
    EXPECT_EQ(changesAfter([](auto&) {}), Lines{"added file take.wav"});
}

// Queued operations report their status; neither they nor the unqueued ones raise a change event.
TEST_F(DCIFileManagerTests, OperationsUpdateTheTreeAndRefuseWhatTheyCannotDo) {
    write(root, "a/x.wav", "1");
    write(root, "taken.wav", "2");
    write(root, "a/keep.als", "3");
    write(root, "S/s.wav", "4");
    fs::create_directory(root + "/E");
    const auto early = manager->queueCreateDirectoryAtPath(root + "/early");  // waits for the start
    ASSERT_TRUE(startedOnRoot());
    EXPECT_TRUE(pumpMainLoopUntil([&] { return early->status() == DCIActionStatusCompleted; }));
    // An operation takes into the tree what it made, and nothing else: an edit beside it is
    // still told; a folder moved onto an empty one replaces it.
    std::shared_ptr<DCIAction> move, copyOnto, mkdir, ontoEmpty;
    EXPECT_EQ(changesAfter([&](auto& r) {
                  write(r, "a/keep.als", "edited");
                  move = manager->queueMoveItemAtPath(r + "/a/x.wav", r + "/y.wav");
                  copyOnto = manager->queueCopyItemAtPath(r + "/y.wav", r + "/taken.wav");
                  mkdir = manager->queueCreateDirectoryAtPath(r + "/new/deeper");
                  ontoEmpty = manager->queueMoveItemAtPath(r + "/S", r + "/E");
                  ASSERT_TRUE(pumpMainLoopUntil([&] {
                      return std::ranges::all_of(std::array{move, copyOnto, mkdir, ontoEmpty},
                                                 [](const auto& action) { return action->status() > DCIActionStatusRunning; });
                  }));
              }),
              Lines{"modified a/keep.als"});
    EXPECT_EQ(std::tuple(move->status(), copyOnto->status()), std::tuple(DCIActionStatusCompleted, DCIActionStatusFailed));
    const auto error = copyOnto->contextObjectForKey(kDCIError);
    ASSERT_TRUE(error && error->error());
    EXPECT_EQ(std::tuple(error->error()->code(), readWholeFile(root + "/taken.wav")), std::tuple(EEXIST, "2"));
    EXPECT_TRUE(manager->fileWithPath(root + "/y.wav") && manager->folderWithPath("new/deeper"));
    // Records move with their files and leave with them.
    EXPECT_EQ(changesAfter([](auto& r) { fs::rename(r + "/taken.wav", r + "/given.wav"); }), Lines{"moved file taken.wav -> given.wav"});
    std::set<std::string> recorded;
    for (const auto& [path, record] : manager->sampleCache()->shaCache()) {
        if (path.find("marker") == std::string::npos) recorded.insert(path.substr(root.size() + 1));
    }
    EXPECT_EQ(recorded, (std::set<std::string>{"E/s.wav", "given.wav", "y.wav"}));

    recorder->events.clear();
    EXPECT_TRUE(manager->unqueuedCopyItemAtPath(root + "/y.wav", root + "/deep/er/x.wav"));
    EXPECT_TRUE(manager->unqueuedMoveItemAtPath(root + "/deep/er/x.wav", root + "/y.wav"));  // replaces
    EXPECT_FALSE(manager->unqueuedMoveItemAtPath(root + "/y.wav", root + "/missing/x.wav"));
    EXPECT_TRUE(fs::exists(root + "/y.wav"));
    // Made outside the root: a link made inside would be a change of the user's, told in time.
    const std::string link = directory / "link.wav";
    fs::create_symlink(root + "/y.wav", link);
    EXPECT_FALSE(manager->unqueuedMoveItemAtPath(link, root + "/y.wav"));  // y.wav would link to itself
    EXPECT_EQ(readWholeFile(root + "/y.wav"), "1");
    EXPECT_TRUE(manager->unqueuedCreateDirectoryAtPath(root + "/deep"));
    EXPECT_FALSE(manager->unqueuedCopyItemAtPath(root + "/deep", root + "/deep/er/inside"));
    EXPECT_FALSE(fs::exists(root + "/deep/er/inside"));
    EXPECT_FALSE(manager->unqueuedCopyItemAtPath(std::nullopt, root + "/z.wav"));
    EXPECT_EQ(manager->queueMoveItemAtPath(root + "/none.wav", "z.wav"), nullptr);  // relative
    EXPECT_EQ(manager->queueCopyItemAtPath("none.wav", root + "/z.wav"), nullptr);
    // Across file systems a folder, its name as long as a name may be, is copied into place, then its source removed.
    const std::string elsewhere = "/dev/shm/kestly-move-" + std::to_string(getpid()), f = "/" + std::string(255, 'f');
    write(elsewhere, f + "/z.wav", "9");
    if (fs::exists(elsewhere)) {
        EXPECT_TRUE(manager->unqueuedMoveItemAtPath(elsewhere + f, root + f));
        EXPECT_EQ(readWholeFile(root + f + "/z.wav"), "9");
        EXPECT_FALSE(fs::exists(elsewhere + f));
        remove(elsewhere, "");
    }
    // A sparse file is copied sparse, its data where it was: holes must not fill the disk.
    const std::string sparse = directory / "sparse", sparseCopy = directory / "sparse copy";
    std::ofstream(sparse) << "data";
    fs::resize_file(sparse, 16 << 20);
    EXPECT_TRUE(manager->unqueuedCopyItemAtPath(sparse, sparseCopy));
    struct stat original, copy;
    ASSERT_TRUE(stat(sparse.c_str(), &original) == 0 && stat(sparseCopy.c_str(), &copy) == 0);
    EXPECT_EQ(std::tuple(copy.st_size, readWholeFile(sparseCopy).substr(0, 4)), std::tuple(original.st_size, "data"));
    EXPECT_LE(copy.st_blocks, original.st_blocks + 64);
    EXPECT_EQ(manager->queueCreateDirectoryAtPath(std::nullopt), nullptr);
    pumpMainLoopBriefly();
    EXPECT_EQ(types(), std::vector<uint64_t>{});

    auto odd = DCIAction::initWithCategory(DCIActionCategoryCommon, 42);
    manager->fileActionQueue()->addAction(odd);
    manager->signalFileManagerThread(false);
    EXPECT_TRUE(pumpMainLoopUntil([&] { return odd->status() == DCIActionStatusFailed; }));
}

// Lookups answer only below the root; hashes of the watched kinds come from their cache.
TEST_F(DCIFileManagerTests, LookupsAndHashes) {
    write(root, "a/b/x.wav", "1");
    write(root, "x.als", "abc");
    write(root, "notes.txt", "abc");
    fs::create_directory(root + "2");
    // What a copy cut short left goes at the start; a copy under way stays, out of the tree.
    const pid_t ended = fork();
    if (ended == 0) _exit(0);
    waitpid(ended, nullptr, 0);
    const std::string abandoned = "a/.kestly-staging-" + std::to_string(ended) + "-0";
    const std::string underWay = ".kestly-staging-" + std::to_string(getpid()) + "-0";
    write(root, abandoned + "/x.wav", "cut short");
    write(root, underWay + "/x.wav", "being copied");
    EXPECT_EQ(manager->SHAForFileAtPath(root + "/x.als"), std::nullopt);  // no cache before a start
    ASSERT_TRUE(startedOnRoot());
    EXPECT_EQ(std::tuple(fs::exists(root + "/" + abandoned), fs::exists(root + "/" + underWay), !manager->folderWithPath(underWay)),
              std::tuple(false, true, true));
    const std::pair<std::string, std::optional<std::string>> folders[] = {
        {root, ""}, {root + "/a/b/", "a/b"}, {"a/b", "a/b"}, {"/", std::nullopt}, {root + "2", std::nullopt},
        {root + "/a/b/x.wav", std::nullopt}, {root + "/a/../a", "a"},
    };
    for (const auto& [path, expected] : folders) {
        const auto folder = manager->folderWithPath(path);
        EXPECT_EQ(folder ? std::optional(folder->relativePath()) : std::nullopt, expected) << path;
    }
    EXPECT_TRUE(manager->fileWithPath(root + "/a/b/x.wav") && !manager->fileWithPath(root + "2/a/b/x.wav"));

    EXPECT_EQ(std::tuple(manager->SHAForFileAtPath(root + "/x.als"), manager->primaryFileCache()->shaCache().size()),
              std::tuple(kSHA256OfABC, 1u));
    LogSince log;
    EXPECT_EQ(manager->SHAForFileAtPath(root + "/notes.txt"), kSHA256OfABC);
    EXPECT_TRUE(log.has("Unexpected: DCIFileManager is creating hash for file " + root + "/notes.txt.  It will not be cached."));
}

TEST_F(DCIFileManagerTests, AStreamOverItsWatchLimitFallsBackToPeriodicRescans) {
    write(root, "a/b/x.wav", "1");
    manager->setFSEventStreamOptions({.latency = 200ms, .fallbackInterval = 500ms, .maximumWatches = 1});
    LogSince log;
    ASSERT_TRUE(startedOnRoot());
    EXPECT_NE(log.text().find("cannot watch the 3 folders under " + root), std::string::npos) << log.text();
    // A polled folder's change is found at its next look, not in the pass the marker makes.
    recorder->events.clear();
    write(root, "a/b/x.wav", "2");
    EXPECT_TRUE(pumpMainLoopUntil([&] { return !recorder->events.empty(); }, 10s));
    EXPECT_EQ(describe(*recorder->events.front(), root), "modified a/b/x.wav");
}

// Passes over the folders the stream names tell what passes over the whole root tell, for
// random bursts of changes, and leave the same tree. KESTLY_SEED picks another burst sequence.
TEST_F(DCIFileManagerTests, PassesOverChangedFoldersTellWhatWholePassesTell) {
    // The second root's name is as long as the first's, so events read alike relative to either.
    const std::string whole = directory.makeFolder("full");
    for (const auto& r : {root, whole}) fs::create_directory(r + "-outside");
    const auto full = DCIFileManager::init();
    full->addSecondaryFileExtension("wav");
    full->setFullPasses(true);
    const char* seed = std::getenv("KESTLY_SEED");
    std::mt19937 random(seed ? static_cast<unsigned>(std::atoi(seed)) : 20);
    auto pick = [&](const std::vector<std::string>& items) { return items[random() % items.size()]; };
    const std::vector<std::string> names{"a", "b", "c", "d"};
    // Creates, deletes, edits, renames, swaps through a third name, folder moves within, out
    // and back in, folders deleted (and made again), and files made and deleted at once, the
    // same on both roots.
    auto burst = [&] {
        std::vector<std::string> files, folders{""}, movable{"/none"};
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            const std::string relative = entry.path().string().substr(root.size());
            if (relative.find("marker") == std::string::npos) (entry.is_directory() ? folders : files).push_back(relative);
        }
        movable.insert(movable.end(), folders.begin() + 1, folders.end());
        const auto kind = files.empty() ? 4 : static_cast<unsigned>(random() % 9);
        const std::string place = pick(folders) + "/" + pick(names), content = pick(names), other = pick(movable);
        const std::string file = files.empty() ? "" : pick(files);
        for (const auto& r : {root, whole}) {
            std::error_code ignored;  // a step whose source went with an earlier one does nothing, on both roots alike
            switch (kind) {
                case 0: fs::remove(r + file, ignored); break;
                case 1: write(r, file, content); break;
                case 2: fs::rename(r + file, r + place + ".wav", ignored); break;
                case 3: fs::rename(r + file, r + "/t.wav", ignored), fs::rename(r + "/t.wav", r + place + ".wav", ignored); break;
                case 4: write(r, place + "/" + content + ".wav", content); break;
                case 5: fs::rename(r + other, r + place, ignored); break;
                case 6: fs::rename(r + other, r + "-outside/x", ignored), fs::rename(r + "-outside/x", r + place, ignored); break;
                case 7: fs::remove_all(r + other, ignored); break;
                default: write(r, place + ".wav", "brief"), fs::remove(r + place + ".wav", ignored); break;
            }
        }
    };
    auto tree = [](const std::shared_ptr<DCIFolderObject>& top) {
        std::set<std::pair<std::string, std::optional<std::string>>> entries;
        for (const auto& file : top->gatherFiles()) entries.emplace(file->relativePath(), file->fileHash());
        for (const auto& folder : top->gatherFolders()) entries.emplace(folder->relativePath(), std::nullopt);
        return entries;
    };
    start(root);
    full->startWatchingRootFolder(whole, directory / "p2.sqlite", directory / "s2.sqlite", nullptr);
    ASSERT_TRUE(waitFor(DCIEventTypeFileManagerReady, 2));
    for (int round = 0; round < 20; ++round) {
        recorder->events.clear();
        for (int step = 0; step <= round % 4; ++step) burst();
        const std::string marker = "marker-" + std::to_string(round) + ".wav";
        for (const auto& r : {root, whole}) write(r, marker, marker);
        ASSERT_TRUE(pumpMainLoopUntil([&] {
            return std::ranges::count_if(recorder->events, [&](const auto& e) { return describe(*e, root) == "added file " + marker; }) == 2;
        }, 10s));
        pumpMainLoopBriefly();
        Lines incremental, wholeRoot;
        for (const auto& event : recorder->events) {
            bool ofWhole = false;
            for (const auto key : {kDCIFileObject, kDCIFolderObject, kDCIOldFileObject, kDCIOldFolderObject}) {
                if (const auto value = event->contextValue(key)) ofWhole = value->object()->description().starts_with(whole + "/");
            }
            (ofWhole ? wholeRoot : incremental).push_back(describe(*event, root));
        }
        EXPECT_EQ(incremental, wholeRoot) << "round " << round;
        EXPECT_EQ(tree(manager->rootFolder()), tree(full->rootFolder())) << "round " << round;
    }
    full->stop();
}

}  // namespace
