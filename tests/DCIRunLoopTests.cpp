#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include "support/Testing.h"

#include <deque>

#include <poll.h>
#include <sys/epoll.h>

namespace {
using Clock = DCIRunLoop::Clock;
using Closure = DCIRunLoop::Closure;

// Only bounds waits that end far sooner when the loop works; never a measure of speed.
constexpr auto kPatience = 10s;

DCIRunLoop& mainLoop() { return DCIRunLoop::main(); }

bool runMainUntil(const std::function<bool()>& predicate) { return mainLoop().runUntil(predicate, kPatience); }

void drain(DCIRunLoop& loop) {
    while (loop.runOnce()) {}
}

bool isReadable(int fd, std::chrono::milliseconds wait = 0ms) {
    pollfd poller{fd, POLLIN, 0};
    return poll(&poller, 1, static_cast<int>(wait.count())) == 1 && (poller.revents & POLLIN);
}

/// A non-blocking pipe whose ends close with the object.
struct Pipe {
    Pipe() { EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe() { close(ends[0]); close(ends[1]); }
    Pipe(const Pipe&) = delete;
    int readEnd() const { return ends[0]; }
    void write(std::string_view text) const { EXPECT_EQ(::write(ends[1], text.data(), text.size()), ssize_t(text.size())); }
    int ends[2] = {-1, -1};
};
}  // namespace

TEST(DCIRunLoopPerform, ClosuresOfEachThreadRunInTheOrderQueued) {
    constexpr int kEach = 2000;
    std::vector<std::pair<int, int>> ran;  // (producer, sequence), touched on the main thread only
    const auto producers = startThreads(2, [&ran](int producer) {
        for (int i = 0; i < kEach; ++i) mainLoop().performAsync([&ran, producer, i] { ran.emplace_back(producer, i); });
    });
    EXPECT_TRUE(runMainUntil([&] { return ran.size() == 2 * kEach; }));
    int next[2] = {0, 0};
    for (const auto& [producer, sequence] : ran) EXPECT_EQ(sequence, next[producer]++);
}

TEST(DCIRunLoopPerform, AClosureThatQueuesItselfRunsOncePerPassAndStarvesNoSource) {
    int closureRuns = 0;
    bool signalled = false;
    std::function<void()> requeue = [&] {
        if (++closureRuns < 1000) mainLoop().performAsync(requeue);
    };
    const auto source = mainLoop().addSignalSource([&] { signalled = true; });
    mainLoop().performAsync(requeue);
    source->signal();
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_EQ(std::pair(signalled, closureRuns), std::pair(true, 1));
    drain(mainLoop());
}

// From another thread it runs on the loop's thread and waits (see the per-thread loops).
TEST(DCIRunLoopPerform, PerformSyncRunsInlineOnItsOwnLoopAndNeverOnAnEndedOne) {
    int inlineRuns = 0;
    mainLoop().performSync([&] { ++inlineRuns; });
    mainLoop().performAsync([&] { mainLoop().performSync([&] { ++inlineRuns; }); });
    EXPECT_TRUE(runMainUntil([&] { return inlineRuns == 2; }));

    // A loop that ends first never runs it, but lets the caller go.
    std::promise<DCIRunLoop*> made;
    std::thread owner([&] {
        DCIRunLoop& loop = DCIRunLoop::current();
        made.set_value(&loop);
        EXPECT_TRUE(isReadable(loop.fileDescriptor(), kPatience));  // leaves once the closure is queued
    });
    bool ran = false;
    made.get_future().get()->performSync([&] { ran = true; });
    owner.join();
    EXPECT_FALSE(ran);
}

TEST(DCIRunLoopSignal, SignalsCoalesceUntilTheCallbackRunsAndNoneIsLost) {
    constexpr int kThreads = 4, kSignalsEach = 1000;
    std::atomic<int> posted = 0;
    int calls = 0, seen = 0;
    const auto source = mainLoop().addSignalSource([&] { ++calls; seen = posted.load(); });
    const auto signalFromThreads = [&] {
        return startThreads(kThreads, [&](int) {
            for (int j = 0; j < kSignalsEach; ++j) {
                posted.fetch_add(1);
                source->signal();
            }
        });
    };
    // Signalled before the loop runs: one call.
    signalFromThreads();
    drain(mainLoop());
    EXPECT_EQ(calls, 1);
    // Signalled while it runs: the last signal leads to a call that sees everything posted.
    const auto signallers = signalFromThreads();
    EXPECT_TRUE(runMainUntil([&] { return seen == 2 * kThreads * kSignalsEach; }));
}

TEST(DCIRunLoopSources, ASourceRemovedInACallbackNeverRunsAgainNorLater) {
    // Two sources ready in one pass, each removing both when it runs: one runs, once, its
    // captures lasting until it returns, and nothing stays registered.
    std::deque<Pipe> pipes;
    const std::pair<const char*, std::function<std::unique_ptr<DCIRunLoopSource>(Closure)>> kinds[] = {
        {"signal", [](Closure callback) {
             auto source = mainLoop().addSignalSource(std::move(callback));
             source->signal();
             return source;
         }},
        {"timer", [](Closure callback) { return mainLoop().addTimer(0ms, true, std::move(callback)); }},
        {"descriptor", [&](Closure callback) {  // left readable
             pipes.emplace_back().write("unread");
             return mainLoop().addFileDescriptorSource(pipes.back().readEnd(), EPOLLIN, [callback](uint32_t) { callback(); });
         }},
    };
    for (const auto& [kind, add] : kinds) {
        SCOPED_TRACE(kind);
        auto captured = std::make_shared<int>(7);
        const std::weak_ptr<int> watcher = captured;
        int calls = 0, seenAfterRemoval = 0;
        std::unique_ptr<DCIRunLoopSource> sources[2];
        for (auto& source : sources) {
            source = add([&, captured] {
                ++calls;
                sources[0].reset();
                sources[1].reset();
                seenAfterRemoval = *captured;
            });
        }
        captured.reset();
        EXPECT_TRUE(runMainUntil([&] { return calls > 0; }));
        drain(mainLoop());
        EXPECT_EQ(std::tuple(calls, seenAfterRemoval, watcher.expired(), isReadable(mainLoop().fileDescriptor())),
                  std::tuple(1, 7, true, false));
    }
}

TEST(DCIRunLoopSources, DestroyedOnAnotherThreadWaitsForTheRunningCallback) {
    std::atomic<bool> entered = false, destroying = false, finished = false;
    bool finishedBeforeDestructorReturned = false;
    auto source = mainLoop().addSignalSource([&] {
        entered = true;
        while (!destroying) std::this_thread::yield();
        std::this_thread::sleep_for(20ms);  // gives the destructor time to return, were it not to wait
        finished = true;
    });
    source->signal();
    std::thread destroyer([&] {
        while (!entered) std::this_thread::yield();
        destroying = true;
        source.reset();
        finishedBeforeDestructorReturned = finished;
    });
    EXPECT_TRUE(runMainUntil([&] { return finished.load(); }));
    destroyer.join();
    EXPECT_TRUE(finishedBeforeDestructorReturned);
}

TEST(DCIRunLoopSources, NoCallbackStartsAfterADestructorOnAnotherThreadReturned) {
    std::atomic<bool> destroyed = false;
    int lateCalls = 0;
    for (int round = 0; round < 50; ++round) {
        destroyed = false;
        bool done = false;
        auto source = mainLoop().addSignalSource([&] { lateCalls += destroyed ? 1 : 0; });
        std::thread signaller([&] {
            for (int i = 0; i < 200; ++i) source->signal();
            source.reset();
            destroyed = true;
            mainLoop().performAsync([&] { done = true; });
        });
        EXPECT_TRUE(runMainUntil([&] { return done; }));
        signaller.join();
        drain(mainLoop());
    }
    EXPECT_EQ(lateCalls, 0);
}

TEST(DCIRunLoopTimer, TimersFireInDeadlineOrderNeverEarlyAndRepeatUntilRemoved) {
    const auto start = Clock::now();
    std::string order;
    std::vector<std::unique_ptr<DCIRunLoopSource>> timers;
    for (const auto& [name, delay] : {std::pair{'c', 30ms}, {'a', 10ms}, {'b', 20ms}}) {
        timers.push_back(mainLoop().addTimer(delay, false, [&, name, delay] {
            order += name;
            EXPECT_GE(Clock::now() - start, delay);
        }));
    }
    mainLoop().addTimer(15ms, false, [&] { order += 'x'; });  // removed at once
    timers.push_back(mainLoop().addTimer(Clock::duration::max(), true, [&] { order += 'n'; }));
    int repeats = 0;
    std::unique_ptr<DCIRunLoopSource> repeating = mainLoop().addTimer(10ms, true, [&] {
        EXPECT_GE(Clock::now() - start, ++repeats * 10ms);
        if (repeats == 3) repeating.reset();
    });
    EXPECT_TRUE(runMainUntil([&] { return order.size() >= 3 && !repeating; }));
    mainLoop().runUntil(Clock::now() + 50ms);
    EXPECT_EQ(std::pair(order, repeats), std::pair(std::string("abc"), 3));
}

TEST(DCIRunLoopDescriptor, ADescriptorNumberIsWatchedOnceWhileItsFileLasts) {
    Pipe first, second;
    first.write("unread");
    const int keepsFirstOpen = dup(first.readEnd());
    int staleCalls = 0;
    EXPECT_EQ(mainLoop().addFileDescriptorSource(-1, EPOLLIN, [](uint32_t) {}), nullptr);
    auto stale = mainLoop().addFileDescriptorSource(first.readEnd(), EPOLLIN, [&](uint32_t) { ++staleCalls; });
    ASSERT_NE(stale, nullptr);
    EXPECT_EQ(mainLoop().addFileDescriptorSource(first.readEnd(), EPOLLIN, [](uint32_t) {}), nullptr);
    // The owner closes its descriptor without removing the source, and the number is reused.
    ASSERT_EQ(dup2(second.readEnd(), first.readEnd()), first.readEnd());
    mainLoop().runOnce();
    EXPECT_EQ(staleCalls, 0);  // it would read a file that is no longer its own

    std::string received;
    auto newer = mainLoop().addFileDescriptorSource(first.readEnd(), EPOLLIN, [&](uint32_t) {
        char buffer[16];
        received.append(buffer, size_t(std::max<ssize_t>(read(first.readEnd(), buffer, sizeof buffer), 0)));
    });
    ASSERT_NE(newer, nullptr);
    stale.reset();
    second.write("fresh");
    EXPECT_TRUE(runMainUntil([&] { return received == "fresh"; }));

    // The first pipe is still readable through the duplicate, but no registration is left.
    newer.reset();
    mainLoop().runOnce();
    EXPECT_FALSE(isReadable(mainLoop().fileDescriptor()));
    close(keepsFirstOpen);
}

TEST(DCIRunLoopRun, AStopEndsTheInnermostRunOrTheNextOneButNotRunOnce) {
    std::vector<std::string> steps;
    const auto step = [&steps](std::string name) { return [&steps, name] { steps.push_back(name); mainLoop().stop(); }; };
    mainLoop().stop();
    mainLoop().performAsync([&] { steps.push_back("runOnce"); });
    EXPECT_TRUE(mainLoop().runOnce() && steps.size() == 1);
    mainLoop().run();  // returns at once, taking the stop

    // A nested run that waited although "second" is ready would never return: the suite's
    // time-out fails it.
    mainLoop().performAsync([&] {
        steps.push_back("first");
        mainLoop().run();
        steps.push_back("nested run returned");
        mainLoop().performAsync(step("outer stop"));
    });
    mainLoop().performAsync(step("second"));
    mainLoop().run();
    EXPECT_EQ(steps, (std::vector<std::string>{"runOnce", "first", "second", "nested run returned", "outer stop"}));

    // From another thread, once run() is running the closure performSync waits for.
    std::thread stopper([] { mainLoop().performSync([] {}); mainLoop().stop(); });
    mainLoop().run();
    stopper.join();
}

TEST(DCIRunLoopRun, RunOnceNeverWaitsAndTheDescriptorIsReadableWhileWorkIsReady) {
    const int fd = mainLoop().fileDescriptor();
    drain(mainLoop());
    EXPECT_FALSE(mainLoop().runOnce() || isReadable(fd));

    int ran = 0;
    const auto source = mainLoop().addSignalSource([&] { ++ran; });
    std::thread([] { mainLoop().performAsync([] {}); }).join();
    EXPECT_TRUE(isReadable(fd));
    mainLoop().performAsync([&] { ++ran; });
    source->signal();
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_EQ(std::tuple(ran, isReadable(fd), mainLoop().runOnce()), std::tuple(2, false, false));

    const auto timer = mainLoop().addTimer(5ms, false, [&] { ++ran; });
    EXPECT_TRUE(isReadable(fd, kPatience));
    EXPECT_TRUE(mainLoop().runOnce() && ran == 3);

    // Work the loop's own thread queues during a pass, and work allowed to wait, from any
    // thread, each make the descriptor readable in the end; what waits keeps its place.
    std::string order;
    mainLoop().performAsync([&] { mainLoop().performAsync([&] { order += "queued in a pass,"; }); });
    EXPECT_TRUE(mainLoop().runOnce() && isReadable(fd));
    std::thread([&] {
        mainLoop().performAsync([&] { order += "waited,"; }, 20ms);
        mainLoop().performAsync([&] { order += "at once"; });
    }).join();
    drain(mainLoop());
    mainLoop().performAsync([&] { order += ",alone"; }, 5ms);
    EXPECT_TRUE(isReadable(fd, kPatience));
    drain(mainLoop());
    EXPECT_EQ(order, "queued in a pass,waited,at once,alone");
}

TEST(DCIRunLoopCallbacks, AnExceptionIsReportedAndTheLoopGoesOn) {
    int signalCalls = 0;
    bool ranAfter = false;
    const auto source = mainLoop().addSignalSource([&] { ++signalCalls; throw std::runtime_error("source failed"); });
    testing::internal::CaptureStderr();
    mainLoop().performAsync([] { throw std::runtime_error("disk on fire"); });
    mainLoop().performAsync([&] { ranAfter = true; });
    for (int round = 1; round <= 2; ++round) {
        source->signal();
        EXPECT_TRUE(runMainUntil([&] { return ranAfter && signalCalls == round; }));
    }
    const std::string output = testing::internal::GetCapturedStderr();
    for (const char* what : {"disk on fire", "source failed"})
        EXPECT_NE(output.find(std::string("kestly: uncaught exception in run-loop callback: ") + what + "\n"), std::string::npos);
}

TEST(DCIRunLoopThreads, EachThreadRunsItsOwnLoopAndOthersPerformAndSignalOnIt) {
    EXPECT_TRUE(DCIIsMainThread() && &DCIRunLoop::current() == &mainLoop() && mainLoop().isCurrent());
    // Another thread can neither run the main loop nor see it as its own.
    bool ranOnMain = false, onMainThread = true, mainIsCurrent = true, ranMain = true;
    mainLoop().performAsync([&] { ranOnMain = true; });
    std::promise<DCIRunLoop*> started;
    std::thread worker([&] {
        onMainThread = DCIIsMainThread();
        mainIsCurrent = mainLoop().isCurrent();
        mainLoop().run();
        ranMain = mainLoop().runOnce() || mainLoop().runUntil([] { return true; }, kPatience);
        DCIRunLoop& loop = DCIRunLoop::current();
        started.set_value(&loop);
        loop.run();
    });
    DCIRunLoop& loop = *started.get_future().get();
    EXPECT_FALSE(&loop == &mainLoop() || loop.isCurrent());

    bool ranOnWorker = false;
    loop.performSync([&] { ranOnWorker = loop.isCurrent() && &DCIRunLoop::current() == &loop; });
    EXPECT_TRUE(ranOnWorker);
    std::promise<bool> signalled;
    const auto source = loop.addSignalSource([&] { signalled.set_value(loop.isCurrent()); });
    source->signal();
    EXPECT_TRUE(signalled.get_future().get());
    loop.stop();
    worker.join();
    EXPECT_FALSE(onMainThread || mainIsCurrent || ranMain || ranOnMain);
    source->signal();  // its loop is gone; the handles still work, and go after it
    EXPECT_TRUE(runMainUntil([&] { return ranOnMain; }));
}
