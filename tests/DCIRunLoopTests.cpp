#include "CoreKestly/Platform/DCIRunLoop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {
using namespace std::chrono_literals;
using Clock = DCIRunLoop::Clock;

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
class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe2(fds_, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe() {
        close(fds_[0]);
        close(fds_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readEnd() const { return fds_[0]; }
    int writeEnd() const { return fds_[1]; }
    void write(const std::string& text) const {
        EXPECT_EQ(::write(writeEnd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::string readAvailable() const {
        std::string text;
        char buffer[256];
        for (ssize_t count; (count = read(readEnd(), buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(count));
        return text;
    }

private:
    int fds_[2] = {-1, -1};
};

/// A thread that runs its own loop until the object goes.
class LoopThread {
public:
    LoopThread() : thread_([this] { run(); }) { loop_ = started_.get_future().get(); }
    ~LoopThread() {
        loop_->stop();
        thread_.join();
    }
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    DCIRunLoop& loop() const { return *loop_; }

private:
    void run() {
        DCIRunLoop& loop = DCIRunLoop::current();
        started_.set_value(&loop);
        loop.run();
    }

    std::promise<DCIRunLoop*> started_;
    DCIRunLoop* loop_ = nullptr;
    std::thread thread_;
};
}  // namespace

TEST(DCIRunLoopPerform, ClosuresOfEachThreadRunInTheOrderQueued) {
    constexpr int kEach = 2000;
    std::vector<std::pair<int, int>> ran;  // (producer, sequence), touched on the main thread only
    std::vector<std::thread> producers;
    for (int producer = 0; producer < 2; ++producer) {
        producers.emplace_back([&ran, producer] {
            for (int i = 0; i < kEach; ++i)
                mainLoop().performAsync([&ran, producer, i] { ran.emplace_back(producer, i); });
        });
    }
    EXPECT_TRUE(runMainUntil([&] { return ran.size() == 2 * kEach; }));
    for (auto& producer : producers) producer.join();

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
    EXPECT_TRUE(signalled);
    EXPECT_EQ(closureRuns, 1);
    drain(mainLoop());
}

TEST(DCIRunLoopPerform, PerformSyncFromAnotherThreadRunsOnTheLoopAndWaits) {
    bool ranOnMainThread = false;
    int value = 0;
    std::thread caller([&] {
        mainLoop().performSync([&] {
            ranOnMainThread = DCIIsMainThread();
            value = 42;
        });
        EXPECT_EQ(value, 42);
    });
    EXPECT_TRUE(runMainUntil([&] { return value == 42; }));
    caller.join();
    EXPECT_TRUE(ranOnMainThread);
}

TEST(DCIRunLoopPerform, PerformSyncOnTheLoopsOwnThreadRunsInline) {
    bool ran = false;
    mainLoop().performSync([&] { ran = true; });
    EXPECT_TRUE(ran);

    bool innerRan = false;
    mainLoop().performAsync([&] { mainLoop().performSync([&] { innerRan = true; }); });
    EXPECT_TRUE(runMainUntil([&] { return innerRan; }));
}

TEST(DCIRunLoopPerform, PerformSyncReturnsWhenTheLoopEndsWithoutRunningIt) {
    std::promise<DCIRunLoop*> made;
    std::thread owner([&] {
        DCIRunLoop& loop = DCIRunLoop::current();
        made.set_value(&loop);
        // Leaves, destroying the loop, as soon as the closure is queued.
        EXPECT_TRUE(isReadable(loop.fileDescriptor(), kPatience));
    });
    bool ran = false;
    made.get_future().get()->performSync([&] { ran = true; });
    owner.join();
    EXPECT_FALSE(ran);
}

TEST(DCIRunLoopSignal, SignalsBeforeTheCallbackRunsCoalesceIntoOneCall) {
    int calls = 0;
    const auto source = mainLoop().addSignalSource([&] { ++calls; });
    std::vector<std::thread> signallers;
    for (int i = 0; i < 4; ++i) {
        signallers.emplace_back([&] {
            for (int j = 0; j < 1000; ++j) source->signal();
        });
    }
    for (auto& signaller : signallers) signaller.join();
    EXPECT_TRUE(runMainUntil([&] { return calls > 0; }));
    drain(mainLoop());
    EXPECT_EQ(calls, 1);

    source->signal();
    EXPECT_TRUE(runMainUntil([&] { return calls == 2; }));
}

TEST(DCIRunLoopSignal, NoSignalIsLostWhileTheLoopRuns) {
    constexpr int kThreads = 4;
    constexpr int kSignalsEach = 2000;
    std::atomic<int> posted = 0;
    int calls = 0;
    int seen = 0;
    const auto source = mainLoop().addSignalSource([&] {
        ++calls;
        seen = posted.load();
    });
    std::vector<std::thread> signallers;
    for (int i = 0; i < kThreads; ++i) {
        signallers.emplace_back([&] {
            for (int j = 0; j < kSignalsEach; ++j) {
                posted.fetch_add(1);
                source->signal();
            }
        });
    }
    // The last signal must lead to a call that sees everything posted before it.
    EXPECT_TRUE(runMainUntil([&] { return seen == kThreads * kSignalsEach; }));
    for (auto& signaller : signallers) signaller.join();
    EXPECT_GE(calls, 1);
    EXPECT_LE(calls, kThreads * kSignalsEach);
}

TEST(DCIRunLoopSources, AHandleMayBeDestroyedInsideItsOwnCallback) {
    auto captured = std::make_shared<int>(7);
    const std::weak_ptr<int> watcher = captured;
    int calls = 0;
    int seenAfterRemoval = 0;
    std::unique_ptr<DCIRunLoopSource> source;
    source = mainLoop().addSignalSource([&, captured] {
        ++calls;
        source.reset();
        seenAfterRemoval = *captured;  // the callback and its captures last until it returns
    });
    captured.reset();
    source->signal();
    EXPECT_TRUE(runMainUntil([&] { return source == nullptr; }));
    drain(mainLoop());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenAfterRemoval, 7);
    EXPECT_TRUE(watcher.expired());
}

TEST(DCIRunLoopSources, ASourceRemovedByAnEarlierCallbackOfThePassNeverRuns) {
    // Two sources ready together, each removing the other when it runs: only one may run.
    const auto expectOneOfTwo = [](const std::function<std::unique_ptr<DCIRunLoopSource>(DCIRunLoop::Closure)>& add) {
        int calls = 0;
        std::unique_ptr<DCIRunLoopSource> first;
        std::unique_ptr<DCIRunLoopSource> second;
        first = add([&] {
            ++calls;
            second.reset();
        });
        second = add([&] {
            ++calls;
            first.reset();
        });
        EXPECT_TRUE(runMainUntil([&] { return calls > 0; }));
        drain(mainLoop());
        EXPECT_EQ(calls, 1);
    };
    expectOneOfTwo([](DCIRunLoop::Closure callback) {
        auto source = mainLoop().addSignalSource(std::move(callback));
        source->signal();
        return source;
    });
    expectOneOfTwo([](DCIRunLoop::Closure callback) { return mainLoop().addTimer(0ms, false, std::move(callback)); });
    Pipe pipes[2];
    int next = 0;
    expectOneOfTwo([&](DCIRunLoop::Closure callback) {
        const Pipe& pipe = pipes[next++];
        pipe.write("ready");
        return mainLoop().addFileDescriptorSource(pipe.readEnd(), EPOLLIN, [&pipe, callback](uint32_t) {
            pipe.readAvailable();
            callback();
        });
    });
}

TEST(DCIRunLoopSources, DestroyedOnAnotherThreadWaitsForTheRunningCallback) {
    std::atomic<bool> entered = false;
    std::atomic<bool> destroying = false;
    std::atomic<bool> finished = false;
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

TEST(DCIRunLoopTimer, OneShotFiresOnceAndNeverEarly) {
    const auto start = Clock::now();
    int fires = 0;
    Clock::time_point firedAt;
    const auto timer = mainLoop().addTimer(20ms, false, [&] {
        ++fires;
        firedAt = Clock::now();
    });
    EXPECT_TRUE(runMainUntil([&] { return fires == 1; }));
    EXPECT_GE(firedAt - start, 20ms);
    mainLoop().runUntil(Clock::now() + 60ms);
    EXPECT_EQ(fires, 1);
}

TEST(DCIRunLoopTimer, RepeatingFiresEveryIntervalUntilItsHandleGoes) {
    const auto start = Clock::now();
    std::vector<Clock::time_point> fires;
    std::unique_ptr<DCIRunLoopSource> timer;
    timer = mainLoop().addTimer(10ms, true, [&] {
        fires.push_back(Clock::now());
        if (fires.size() == 3) timer.reset();
    });
    EXPECT_TRUE(runMainUntil([&] { return timer == nullptr; }));
    mainLoop().runUntil(Clock::now() + 50ms);
    ASSERT_EQ(fires.size(), 3u);
    for (size_t i = 0; i < fires.size(); ++i) EXPECT_GE(fires[i] - start, (i + 1) * 10ms);
}

TEST(DCIRunLoopTimer, TimersFireInDeadlineOrderAndARemovedOneNever) {
    std::string order;
    const auto late = mainLoop().addTimer(30ms, false, [&] { order += "c"; });
    const auto early = mainLoop().addTimer(10ms, false, [&] { order += "a"; });
    const auto middle = mainLoop().addTimer(20ms, false, [&] { order += "b"; });
    auto removed = mainLoop().addTimer(15ms, false, [&] { order += "x"; });
    const auto never = mainLoop().addTimer(Clock::duration::max(), true, [&] { order += "n"; });
    removed.reset();
    EXPECT_TRUE(runMainUntil([&] { return order.size() >= 3; }));
    drain(mainLoop());
    EXPECT_EQ(order, "abc");
}

TEST(DCIRunLoopDescriptor, CallbackRunsWhenAPipeBecomesReadable) {
    Pipe pipe;
    std::string received;
    uint32_t occurred = 0;
    const auto source = mainLoop().addFileDescriptorSource(pipe.readEnd(), EPOLLIN, [&](uint32_t events) {
        occurred |= events;
        received += pipe.readAvailable();
    });
    ASSERT_NE(source, nullptr);
    std::thread writer([&] { pipe.write("hello"); });
    EXPECT_TRUE(runMainUntil([&] { return received == "hello"; }));
    writer.join();
    EXPECT_TRUE(occurred & EPOLLIN);
}

TEST(DCIRunLoopDescriptor, ModifyingChangesTheWatchedEvents) {
    Pipe pipe;
    int calls = 0;
    const auto source = mainLoop().addFileDescriptorSource(pipe.writeEnd(), 0, [&](uint32_t) { ++calls; });
    ASSERT_NE(source, nullptr);
    drain(mainLoop());
    EXPECT_EQ(calls, 0);

    mainLoop().modifyFileDescriptorSource(*source, EPOLLOUT);
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_EQ(calls, 1);

    mainLoop().modifyFileDescriptorSource(*source, 0);
    drain(mainLoop());
    EXPECT_EQ(calls, 1);
}

TEST(DCIRunLoopDescriptor, RemovedInsideItsCallbackWhileStillReadable) {
    Pipe pipe;
    pipe.write("unread");
    int calls = 0;
    std::unique_ptr<DCIRunLoopSource> source;
    source = mainLoop().addFileDescriptorSource(pipe.readEnd(), EPOLLIN, [&](uint32_t) {
        ++calls;
        source.reset();
    });
    EXPECT_TRUE(runMainUntil([&] { return source == nullptr; }));
    drain(mainLoop());
    EXPECT_EQ(calls, 1);
}

TEST(DCIRunLoopDescriptor, AReadinessHandledByANestedRunIsNotReportedAgain) {
    Pipe pipe;
    pipe.write("once");
    int calls = 0;
    const auto source = mainLoop().addFileDescriptorSource(pipe.readEnd(), EPOLLIN, [&](uint32_t) {
        ++calls;
        pipe.readAvailable();
    });
    // One pass sees the closure and the readable pipe; the closure's nested pass reads the pipe
    // first, so the outer pass's report of it is stale.
    mainLoop().performAsync([] { mainLoop().runOnce(); });
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_EQ(calls, 1);
}

TEST(DCIRunLoopDescriptor, RefusedDescriptorsGiveNoSource) {
    Pipe pipe;
    EXPECT_EQ(mainLoop().addFileDescriptorSource(-1, EPOLLIN, [](uint32_t) {}), nullptr);
    const auto first = mainLoop().addFileDescriptorSource(pipe.readEnd(), EPOLLIN, [](uint32_t) {});
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(mainLoop().addFileDescriptorSource(pipe.readEnd(), EPOLLIN, [](uint32_t) {}), nullptr);
}

TEST(DCIRunLoopDescriptor, ASourceOutlivingItsDescriptorDisturbsNoOtherAndLeavesNothingReady) {
    Pipe first, second;
    first.write("unread");
    const int keepsFirstOpen = dup(first.readEnd());
    int staleCalls = 0;
    auto stale = mainLoop().addFileDescriptorSource(first.readEnd(), EPOLLIN, [&](uint32_t) { ++staleCalls; });
    ASSERT_NE(stale, nullptr);
    // The owner closes its descriptor without removing the source, and the number is reused.
    ASSERT_EQ(dup2(second.readEnd(), first.readEnd()), first.readEnd());
    mainLoop().runOnce();
    EXPECT_EQ(staleCalls, 0);  // it would read a file that is no longer its own

    std::string received;
    auto newer = mainLoop().addFileDescriptorSource(first.readEnd(), EPOLLIN, [&](uint32_t) { received += first.readAvailable(); });
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

TEST(DCIRunLoopRun, StopFromAnotherThreadEndsRun) {
    // performSync returns only once run() is running the closure.
    std::thread stopper([] {
        mainLoop().performSync([] {});
        mainLoop().stop();
    });
    mainLoop().run();
    stopper.join();
}

TEST(DCIRunLoopRun, AStopWithNoRunEndsTheNextRunButNotRunOnce) {
    bool ran = false;
    mainLoop().stop();
    mainLoop().performAsync([&] { ran = true; });
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_TRUE(ran);
    mainLoop().run();  // returns at once, taking the stop

    bool ranLater = false;
    mainLoop().performAsync([&] { ranLater = true; });
    EXPECT_TRUE(runMainUntil([&] { return ranLater; }));
}

TEST(DCIRunLoopRun, StopEndsOnlyTheInnermostRun) {
    std::vector<std::string> steps;
    mainLoop().performAsync([&] {
        mainLoop().performAsync([&] {
            steps.push_back("inner stop");
            mainLoop().stop();
        });
        mainLoop().run();
        steps.push_back("nested run returned");
        mainLoop().performAsync([&] {
            steps.push_back("outer stop");
            mainLoop().stop();
        });
    });
    mainLoop().run();
    EXPECT_EQ(steps, (std::vector<std::string>{"inner stop", "nested run returned", "outer stop"}));
}

TEST(DCIRunLoopRun, ANestedRunRunsWorkQueuedBeforeIt) {
    std::vector<std::string> steps;
    mainLoop().performAsync([&] {
        steps.push_back("first");
        mainLoop().run();
        steps.push_back("first done");
    });
    mainLoop().performAsync([&] {
        steps.push_back("second");
        mainLoop().stop();
    });
    // Were the nested run to wait although "second" is ready, this would end it without "second".
    std::promise<void> finished;
    std::thread watchdog([done = finished.get_future()] {
        if (done.wait_for(kPatience) == std::future_status::timeout) mainLoop().stop();
    });
    EXPECT_TRUE(runMainUntil([&] { return steps.size() == 3; }));
    finished.set_value();
    watchdog.join();
    EXPECT_EQ(steps, (std::vector<std::string>{"first", "second", "first done"}));
}

TEST(DCIRunLoopRun, RunOnceNeverWaitsAndRunsWhatIsReady) {
    drain(mainLoop());
    EXPECT_FALSE(mainLoop().runOnce());

    int ran = 0;
    const auto source = mainLoop().addSignalSource([&] { ++ran; });
    mainLoop().performAsync([&] { ++ran; });
    source->signal();
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_EQ(ran, 2);
    EXPECT_FALSE(mainLoop().runOnce());
}

TEST(DCIRunLoopRun, RunUntilReturnsAtItsDeadline) {
    const auto deadline = Clock::now() + 30ms;
    mainLoop().runUntil(deadline);
    EXPECT_GE(Clock::now(), deadline);
    EXPECT_FALSE(mainLoop().runUntil([] { return false; }, 20ms));

    bool ran = false;
    mainLoop().performAsync([&] { ran = true; });
    EXPECT_TRUE(mainLoop().runUntil([&] { return ran; }, 0ms));
    mainLoop().performAsync([&] { ran = false; });
    mainLoop().runUntil(Clock::now() - 1s);
    EXPECT_FALSE(ran);
}

TEST(DCIRunLoopRun, OnlyTheLoopsOwnThreadRunsIt) {
    bool ran = false;
    mainLoop().performAsync([&] { ran = true; });
    std::thread([] {
        EXPECT_FALSE(mainLoop().runOnce());
        mainLoop().run();
        EXPECT_FALSE(mainLoop().runUntil([] { return true; }, kPatience));
    }).join();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(runMainUntil([&] { return ran; }));
}

TEST(DCIRunLoopRun, TheDescriptorIsReadableWhileWorkIsReady) {
    const int fd = mainLoop().fileDescriptor();
    drain(mainLoop());
    EXPECT_FALSE(isReadable(fd));

    std::thread([] { mainLoop().performAsync([] {}); }).join();
    EXPECT_TRUE(isReadable(fd));
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_FALSE(isReadable(fd));

    bool fired = false;
    const auto timer = mainLoop().addTimer(5ms, false, [&] { fired = true; });
    EXPECT_TRUE(isReadable(fd, kPatience));
    EXPECT_TRUE(mainLoop().runOnce());
    EXPECT_TRUE(fired);
}

TEST(DCIRunLoopCallbacks, AnExceptionIsReportedAndTheLoopGoesOn) {
    int signalCalls = 0;
    const auto source = mainLoop().addSignalSource([&] {
        ++signalCalls;
        throw std::runtime_error("source failed");
    });
    bool ranAfter = false;
    testing::internal::CaptureStderr();
    mainLoop().performAsync([] { throw std::runtime_error("disk on fire"); });
    mainLoop().performAsync([&] { ranAfter = true; });
    source->signal();
    const bool ran = runMainUntil([&] { return ranAfter && signalCalls == 1; });
    source->signal();
    const bool ranAgain = runMainUntil([&] { return signalCalls == 2; });
    const std::string output = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(ran);
    EXPECT_TRUE(ranAgain);
    EXPECT_NE(output.find("kestly: uncaught exception in run-loop callback: disk on fire\n"), std::string::npos);
    EXPECT_NE(output.find("kestly: uncaught exception in run-loop callback: source failed\n"), std::string::npos);
}

TEST(DCIRunLoopThreads, TheMainThreadIsTheProcesssInitialThread) {
    EXPECT_TRUE(DCIIsMainThread());
    EXPECT_EQ(&DCIRunLoop::current(), &DCIRunLoop::main());
    EXPECT_TRUE(mainLoop().isCurrent());
    bool isMainInThread = true;
    bool mainLoopIsCurrentInThread = true;
    std::thread([&] {
        isMainInThread = DCIIsMainThread();
        mainLoopIsCurrentInThread = mainLoop().isCurrent();
    }).join();
    EXPECT_FALSE(isMainInThread);
    EXPECT_FALSE(mainLoopIsCurrentInThread);
}

TEST(DCIRunLoopThreads, AThreadRunsItsOwnLoop) {
    bool sameEachTime = false;
    bool isCurrent = false;
    bool timerFired = false;
    DCIRunLoop* threadLoop = nullptr;
    std::thread([&] {
        DCIRunLoop& loop = DCIRunLoop::current();
        threadLoop = &loop;
        sameEachTime = &loop == &DCIRunLoop::current();
        isCurrent = loop.isCurrent();
        bool fired = false;
        const auto timer = loop.addTimer(1ms, false, [&] { fired = true; });
        timerFired = loop.runUntil([&] { return fired; }, kPatience);
    }).join();
    EXPECT_NE(threadLoop, &DCIRunLoop::main());
    EXPECT_TRUE(sameEachTime);
    EXPECT_TRUE(isCurrent);
    EXPECT_TRUE(timerFired);
}

TEST(DCIRunLoopThreads, OtherThreadsPerformAndSignalOnAWorkersLoop) {
    LoopThread worker;
    DCIRunLoop& loop = worker.loop();
    EXPECT_FALSE(loop.isCurrent());

    bool ranOnWorker = false;
    loop.performSync([&] { ranOnWorker = loop.isCurrent() && &DCIRunLoop::current() == &loop; });
    EXPECT_TRUE(ranOnWorker);

    std::promise<bool> signalled;
    const auto source = loop.addSignalSource([&] { signalled.set_value(loop.isCurrent()); });
    source->signal();
    EXPECT_TRUE(signalled.get_future().get());
}

TEST(DCIRunLoopThreads, HandlesAndQueuedClosuresOutliveTheirThreadsLoop) {
    auto captured = std::make_shared<int>(1);
    const std::weak_ptr<int> watcher = captured;
    std::unique_ptr<DCIRunLoopSource> orphan;
    std::thread([&] {
        DCIRunLoop& loop = DCIRunLoop::current();
        orphan = loop.addSignalSource([] {});
        loop.performAsync([captured] {});  // never runs: the thread ends first
    }).join();
    captured.reset();
    EXPECT_TRUE(watcher.expired());
    orphan->signal();
    orphan.reset();
}
