#include "CoreKestly/DCLog/DCLogger.h"

#include "CoreKestly/Platform/KestlyPath.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace {

const char* environmentValue(const char* name) {
    const char* value = std::getenv(name);
    return value && *value ? value : nullptr;
}

// Makes the folder when missing; answers whether it is a real directory of our own. In a
// folder others can write to, another user could plant a link where the log goes, or
// keep us from logging at all.
bool preparePrivateDirectory(const std::string& directory) {
    ::mkdir(directory.c_str(), 0700);
    struct stat status {};
    return ::lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
}

/// Every live logger, so that a fork can hold their locks across it and give the child loggers
/// that work without their writer threads. Never destroyed: loggers may outlive static
/// destruction.
struct LoggerRegistry {
    std::mutex mutex;
    std::vector<DCLogger*> loggers;
    /// In a forked child, the handles of the parent's writer threads, kept without join or
    /// detach: both would touch the record of a thread that does not exist there.
    std::vector<std::unique_ptr<std::thread>> threadsOfParent;
};

// Writes everything, retrying after interruptions and short writes; gives up silently on any
// other failure, since logging must never stop the library.
void writeFully(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

std::string formatLocalTime(std::time_t seconds, const char* format) {
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const size_t length = std::strftime(text, sizeof text, format, &local);
    return std::string(text, length);
}

LoggerRegistry& loggerRegistry() {
    static LoggerRegistry* const registry = new LoggerRegistry;
    return *registry;
}

}  // namespace

DCLogger& DCLogger::sharedLogger() {
    // Never destroyed: any thread may log until the process ends. What is still queued when
    // the process exits normally is written by the exit handler.
    static DCLogger* const logger = [] {
        auto* shared = new DCLogger(perUserTemporaryDirectory());
        std::atexit([] { sharedLogger().flush(); });
        return shared;
    }();
    return *logger;
}

std::string DCLogger::perUserTemporaryDirectory() {
    if (const char* temporary = environmentValue("TMPDIR")) return temporary;
    if (const char* runtime = environmentValue("XDG_RUNTIME_DIR"))
        return KestlyPath::appendingComponent(runtime, "kestly");
    return "/tmp/kestly-" + std::to_string(::geteuid());
}

DCLogger::DCLogger(const std::string& directory)
    : currentLogFileURL_(KestlyPath::appendingComponent(directory, "com.kestly.current.log")),
      previousLogFileURL_(KestlyPath::appendingComponent(directory, "com.kestly.previous.log")) {
    if (preparePrivateDirectory(directory)) {
        // Each step may fail (no previous log, no current log, a read-only folder); the next
        // step still runs, and a failed open just leaves the logger without a file.
        ::unlink(previousLogFileURL_.c_str());
        ::rename(currentLogFileURL_.c_str(), previousLogFileURL_.c_str());
        logFile_ = ::open(currentLogFileURL_.c_str(),
                          O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    } else {
        writeFully(STDERR_FILENO, "kestly: " + directory +
                                      " is not a directory of this user's own; the log file is off\n");
    }
    // Installed once, with the first logger: before it, a fork has no logger to care for.
    [[maybe_unused]] static const int forkHandlers = pthread_atfork(prepareForFork, afterForkInParent, afterForkInChild);
    // Under the registry's lock, so that no fork falls between the writer's start and the
    // logger's registration.
    std::lock_guard lock(loggerRegistry().mutex);
    writer_ = std::make_unique<std::thread>([this] { writeEntries(); });
    loggerRegistry().loggers.push_back(this);
}

DCLogger::~DCLogger() {
    {
        std::lock_guard lock(loggerRegistry().mutex);
        std::erase(loggerRegistry().loggers, this);
    }
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (writer_) writer_->join();
    if (logFile_ >= 0) ::close(logFile_);
}

// A fork copies the locks in whatever state other threads hold them, but not the threads: the
// loggers' locks are taken around it, so the child finds them free and every file write whole.
void DCLogger::prepareForFork() {
    loggerRegistry().mutex.lock();
    for (DCLogger* logger : loggerRegistry().loggers) {
        logger->mutex_.lock();
        logger->fileMutex_.lock();
    }
}

void DCLogger::afterForkInParent() {
    for (DCLogger* logger : loggerRegistry().loggers) {
        logger->fileMutex_.unlock();
        logger->mutex_.unlock();
    }
    loggerRegistry().mutex.unlock();
}

void DCLogger::afterForkInChild() {
    for (DCLogger* logger : loggerRegistry().loggers) {
        // The parent writes what it had queued.
        logger->pending_.clear();
        logger->writtenCount_ = logger->queuedCount_;
        loggerRegistry().threadsOfParent.push_back(std::move(logger->writer_));
        logger->fileMutex_.unlock();
        logger->mutex_.unlock();
    }
    loggerRegistry().mutex.unlock();
}

int DCLogger::logFile() const {
    std::lock_guard lock(fileMutex_);
    return logFile_;
}

void DCLogger::setLogFile(int file) {
    std::lock_guard lock(fileMutex_);
    if (file == logFile_) return;
    if (logFile_ >= 0) ::close(logFile_);
    logFile_ = file;
}

void DCLogger::log(std::string message) {
    {
        std::unique_lock lock(mutex_);
        if (!writer_) {
            lock.unlock();
            std::lock_guard fileLock(fileMutex_);
            writeEntry(message);
            return;
        }
        pending_.push_back(std::move(message));
        ++queuedCount_;
    }
    wake_.notify_one();
}

void DCLogger::flush() {
    std::unique_lock lock(mutex_);
    const uint64_t target = queuedCount_;
    written_.wait(lock, [&] { return writtenCount_ >= target; });
}

void DCLogger::writeEntries() {
    std::unique_lock lock(mutex_);
    while (true) {
        wake_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
        if (pending_.empty()) return;  // stopping, and everything is written
        std::deque<std::string> batch;
        batch.swap(pending_);
        lock.unlock();
        {
            std::lock_guard fileLock(fileMutex_);
            for (const auto& message : batch) writeEntry(message);
        }
        lock.lock();
        writtenCount_ += batch.size();
        written_.notify_all();
    }
}

// Called with fileMutex_ held.
void DCLogger::writeEntry(const std::string& message) const {
    if (logFile_ < 0) return;
    // One write per entry, so that even another process appending to the same file cannot
    // split it.
    std::string entry = formatLocalTime(std::time(nullptr), "%Y-%m-%d %H:%M:%S");
    entry += ": ";
    entry += message;
    entry += '\n';
    writeFully(logFile_, entry);
}

bool DCLogInfoIsSilenced() {
    const char* verbose = std::getenv("VERBOSE_LOGGING");
    return verbose && std::string_view(verbose) == "no";
}

void DCLogMessage(std::string message) {
    const auto now = std::chrono::system_clock::now();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%s.%03lld %s[%d:%ld] ",
                  formatLocalTime(std::chrono::system_clock::to_time_t(now), "%Y-%m-%d %H:%M:%S").c_str(),
                  static_cast<long long>(milliseconds), program_invocation_short_name, static_cast<int>(getpid()),
                  static_cast<long>(::syscall(SYS_gettid)));
    // One write, so that lines of two threads never mix on standard error.
    writeFully(STDERR_FILENO, std::string(stamp) + message + "\n");
    DCLogger::sharedLogger().log(std::move(message));
}
