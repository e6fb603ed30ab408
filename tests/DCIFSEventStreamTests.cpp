#include "CoreKestly/Platform/Files/DCIFSEventStream.h"

#include "support/EventRecorder.h"
#include "support/Testing.h"

namespace {

using Folders = std::set<std::string>;
using Options = DCIFSEventStream::Options;

// A started stream on `t`/r and what it announced, relative to `t`; "*" stands for everything.
struct RecordedStream {
    RecordedStream(const TemporaryDirectory& t, Options options, DCIFSEventStream::ProblemHandler problemHandler = {})
        : stream(t / "r", [this, &t](DCIFSEventBatch batch) {
              if (batch.everything) reported.insert("*");
              for (const auto& folder : batch.folders) reported.insert(folder.substr(t.path().string().size() + 1));
          }, std::move(problemHandler), options) {
        stream.start();
    }
    // What was announced since the last call, once `expected` has been and a while after;
    // everything says all there is to say.
    Folders settled(const Folders& expected) {
        pumpMainLoopUntil([&] { return std::ranges::includes(reported, expected); });
        DCIRunLoop::main().runUntil(DCIRunLoop::Clock::now() + 300ms);
        const Folders announced = std::exchange(reported, {});
        return announced.contains("*") ? Folders{"*"} : announced;
    }

    Folders reported;
    DCIFSEventStream stream;
};

TEST(DCIFSEventStreamTests, AChangeIsReportedUnderTheFoldersThatHoldIt) {
    // A case with a step before the start changes permissions, which bind only the unprivileged.
    using Step = std::function<void(const TemporaryDirectory&)>;
    struct Case { const char* name; Step before, act; Folders expected; Options options = {.latency = 50ms}; };
    const auto lock = [](const char* folder) { return [=](auto& t) { fs::permissions(t / folder, fs::perms::none); }; };
    const auto unlockAndWrite = [](const std::string& folder) {
        return [=](auto& t) { fs::permissions(t / folder, fs::perms::owner_all); t.writeFile(folder + "/f", ""); };
    };
    std::promise<void> stalled, released;  // the overflow case holds the stream's thread in its problem handler
    const Case cases[] = {
        {"file made", {}, [](auto& t) { t.writeFile("r/a/new", ""); }, {"r/a"}},
        {"file written", {}, [](auto& t) { std::ofstream(t / "r/a/f", std::ios::app) << "more"; }, {"r/a"}},
        {"file renamed", {}, [](auto& t) { fs::rename(t / "r/a/f", t / "r/a/g"); }, {"r/a"}},
        {"folder made", {}, [](auto& t) { t.makeFolder("r/a/c"); }, {"r/a", "r/a/c"}},
        {"folder removed", {}, [](auto& t) { fs::remove(t / "r/a/b"); }, {"r/a", "r/a/b"}},
        {"folder moved in, then a file made in it", {},
         [](auto& t) { fs::rename(t / "out/m", t / "r/a/m"); t.writeFile("r/a/m/f", ""); }, {"r/a", "r/a/m"}},
        {"folder found first through a link, the link removed, then a change behind it", {}, [](auto& t) {
             fs::rename(t / "ext", t / "r/ext");
             fs::remove(t / "r/alink");
             t.writeFile("r/ext/real/new/f", "");
         }, {"r", "r/ext", "r/ext/real", "r/ext/real/new"}},
        {"unreadable folder made readable, then a file made in it", lock("r/a/b"), unlockAndWrite("r/a/b"),
         {"r/a", "r/a/b"}},
        {"unreadable root made readable, then a file made in it", lock("r"), unlockAndWrite("r"),
         {"r", "r/a", "r/a/b", "r/alink"}},
        {"overflow, while the stream's thread tells of going over its limit", {}, [&](auto& t) {
             t.makeFolder("r/a/c");
             stalled.get_future().wait_for(5s);
             for (int i = std::stoi(readWholeFile("/proc/sys/fs/inotify/max_queued_events")); i >= 0; --i)
                 fs::last_write_time(t / (i % 2 ? "r/a/f" : "r/a/b"), fs::file_time_type::clock::now());
             released.set_value();
         }, {"*"}, {.latency = 50ms, .maximumWatches = 4}},
        {"more folders than a batch holds", {}, [](auto& t) { t.makeFolder("r/a/c"); }, {"*"},
         {.latency = 50ms, .maximumBatchFolders = 1}},
    };
    for (const auto& test : cases) {
        if (test.before && geteuid() == 0) continue;
        SCOPED_TRACE(test.name);
        TemporaryDirectory t;
        t.writeFiles({"r/a/f", "out/m/f"});
        t.makeFolder("r/a/b");
        fs::create_directory_symlink(t.makeFolder("ext/real"), t / "r/alink");
        if (test.before) test.before(t);
        RecordedStream recorded(t, test.options, [&](auto&) { stalled.set_value(); released.get_future().wait(); });
        test.act(t);
        EXPECT_EQ(recorded.settled(test.expected), test.expected);
    }
}

TEST(DCIFSEventStreamTests, OverItsWatchLimitAStreamKeepsItsWatchesAndPollsOnlyTheOtherFolders) {
    TemporaryDirectory t;
    t.writeFiles({"r/w1/f", "r/w2/f"});
    std::string problem;
    RecordedStream recorded(t, {.latency = 10ms, .fallbackInterval = 100ms, .maximumWatches = 3},
                            [&](const std::string& text) { problem = text; });
    t.makeFolder("r/p");
    EXPECT_TRUE(recorded.settled({"r/p"}).contains("r/p"));
    EXPECT_EQ(problem, "File changes: cannot watch the 4 folders under " + t / "r" +
                           ": the stream's own limit of 3 watches (maximumWatches) is reached; looking every 0.1 s for "
                           "changes in the 1 left without a watch");
    // Each tick reports the polled folder alone, changed or not, and finds a folder made in it.
    EXPECT_EQ(recorded.settled({"r/p"}), Folders{"r/p"});
    t.makeFolder("r/p/x");
    EXPECT_TRUE(recorded.settled({"r/p/x"}).contains("r/p/x"));
    // The watches that folders free go to the polled ones.
    for (const char* folder : {"r/w1", "r/w2"}) fs::remove_all(t / folder);
    EXPECT_TRUE(pumpMainLoopUntil([&] { return !recorded.stream.isFallingBack(); }));
}

}  // namespace
