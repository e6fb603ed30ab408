#include "CoreKestly/DCLog/DCLogger.h"

#include "CoreKestly/Platform/KestlyPath.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::string temporaryDirectory() {
    const char* directory = std::getenv("TMPDIR");
    return directory && *directory ? directory : "/tmp";
}

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

}  // namespace

DCLogger& DCLogger::sharedLogger() {
    // Never destroyed: any thread may log until the process ends. What is still queued when
    // the process exits normally is written by the exit handler.
    static DCLogger* const logger = [] {
        auto* shared = new DCLogger(temporaryDirectory());
        std::atexit([] { sharedLogger().flush(); });
        return shared;
    }();
    return *logger;
}

DCLogger::DCLogger(const std::string& directory)
    : currentLogFileURL_(KestlyPath::appendingComponent(directory, "com.kestly.current.log")),
      previousLogFileURL_(KestlyPath::appendingComponent(directory, "com.kestly.previous.log")) {
    // Each step may fail (no previous log, no current log, a read-only folder); the next
    // step still runs, and a failed open just leaves the logger without a file.
    ::unlink(previousLogFileURL_.c_str());
    ::rename(currentLogFileURL_.c_str(), previousLogFileURL_.c_str());
    logFile_ = ::open(currentLogFileURL_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
    writer_ = std::thread([this] { writeEntries(); });
}

DCLogger::~DCLogger() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    writer_.join();
    if (logFile_ >= 0) ::close(logFile_);
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
        std::lock_guard lock(mutex_);
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
