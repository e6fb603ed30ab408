#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

/// One background thread that runs the tasks given to it one at a time, in the order they
/// were given. Destruction runs every task already submitted, then joins the thread, so a
/// task may use whatever outlives the executor.
class DCISerialExecutor {
public:
    /// Starts the thread; `name` (at most 15 characters) is what debuggers and `top` show.
    explicit DCISerialExecutor(const std::string& name);
    ~DCISerialExecutor();
    DCISerialExecutor(const DCISerialExecutor&) = delete;
    DCISerialExecutor& operator=(const DCISerialExecutor&) = delete;

    /// Queues `task` and returns at once. Any thread.
    void submit(std::function<void()> task);
    /// Queues `task` and waits until it has run. Never from a task of this executor.
    void runAndWait(std::function<void()> task);
    /// Waits until every task submitted before the call has run. Never from a task.
    void waitUntilIdle();

private:
    uint64_t enqueue(std::function<void()> task);
    void waitUntilFinished(uint64_t ticket);
    void runTasks();

    std::mutex mutex_;
    std::condition_variable wake_;      // the thread waits here for tasks
    std::condition_variable finished_;  // waiters wait here for the thread
    std::deque<std::function<void()>> tasks_;
    uint64_t submittedCount_ = 0;
    uint64_t finishedCount_ = 0;
    bool stopping_ = false;
    std::thread thread_;  // last: starts after every member it uses
};
