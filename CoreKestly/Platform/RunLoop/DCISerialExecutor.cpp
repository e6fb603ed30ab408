#include "CoreKestly/Platform/RunLoop/DCISerialExecutorInternal.h"

#include <pthread.h>

DCISerialExecutor::DCISerialExecutor(const std::string& name)
    : thread_([this, name] {
          pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
          runTasks();
      }) {}

DCISerialExecutor::~DCISerialExecutor() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void DCISerialExecutor::submit(std::function<void()> task) {
    enqueue(std::move(task));
}

void DCISerialExecutor::runAndWait(std::function<void()> task) {
    waitUntilFinished(enqueue(std::move(task)));
}

void DCISerialExecutor::waitUntilIdle() {
    uint64_t ticket;
    {
        std::lock_guard lock(mutex_);
        ticket = submittedCount_;
    }
    waitUntilFinished(ticket);
}

uint64_t DCISerialExecutor::enqueue(std::function<void()> task) {
    uint64_t ticket;
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        ticket = ++submittedCount_;
    }
    wake_.notify_one();
    return ticket;
}

void DCISerialExecutor::waitUntilFinished(uint64_t ticket) {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [&] { return finishedCount_ >= ticket; });
}

void DCISerialExecutor::runTasks() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty()) return;  // stopping, and everything submitted has run
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        task = nullptr;  // whatever the task captured goes before anyone hears it finished
        lock.lock();
        ++finishedCount_;
        finished_.notify_all();
    }
}
