#include "CoreKestly/DCLog/DCLogger.h"

#include "CoreKestly/Platform/RunLoop/DCISerialExecutorInternal.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

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
#include <condition_variable>
#include <mutex>
#include <utility>
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
    /// In a forked child, the parent's writers, never destroyed: that would wait for a thread
    /// that does not exist there, under locks the parent's threads may have held at the fork.
    std::vector<std::unique_ptr<DCISerialExecutor>> writersOfParent;
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

/// "%Y-%m-%d %H:%M:%S" in local time.
std::string localTimeStamp(std::time_t seconds) {
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return std::string(text, length);
}

LoggerRegistry& loggerRegistry() {
    static LoggerRegistry* const registry = new LoggerRegistry;
    return *registry;
}

/// Where echoed lines go, as `DCLogSetSink` last said. Never destroyed, as the registry.
struct EchoRoute {
    std::mutex mutex;  // guards the two members below, and every copy of `sink` being let go
    DCLogLevel minimum = DCLogLevel::info;
    std::shared_ptr<const DCLogSink> sink;  // standard error when null
    /// Notified whenever a call of a sink has let its copy go.
    std::condition_variable sinkReturned;
};

EchoRoute& echoRoute() {
    static EchoRoute* const route = new EchoRoute;
    return *route;
}

/// The sink this thread is running, so that what it logs is not echoed again.
thread_local const DCLogSink* runningSink = nullptr;
/// Set while a logger tells of the folder it refused. It may be the shared logger in the making,
/// which a line logged meanwhile (by the sink) would ask for again; no file would take it.
thread_local bool tellingOfRefusedFolder = false;

/// "yyyy-mm-dd hh:mm:ss.mmm name[pid:tid] message\n".
std::string stampedLine(const std::string& message) {
    const auto now = std::chrono::system_clock::now();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%s.%03lld %s[%d:%ld] ",
                  localTimeStamp(std::chrono::system_clock::to_time_t(now)).c_str(),
                  static_cast<long long>(milliseconds), program_invocation_short_name, static_cast<int>(getpid()),
                  static_cast<long>(::syscall(SYS_gettid)));
    return stamp + message + "\n";
}

void echo(DCLogLevel level, const std::string& message) {
    if (runningSink) return;
    EchoRoute& route = echoRoute();
    std::shared_ptr<const DCLogSink> sink;
    {
        std::lock_guard lock(route.mutex);
        if (level < route.minimum) return;
        sink = route.sink;
    }
    if (!sink) {
        // One write, so that lines of two threads never mix on standard error.
        writeFully(STDERR_FILENO, stampedLine(message));
        return;
    }
    runningSink = sink.get();
    try {
        (*sink)(level, message);
    } catch (...) {
        // The host's fault; the line is in the log file all the same.
    }
    runningSink = nullptr;
    {
        std::lock_guard lock(route.mutex);
        // The last copy is let go after the lock, as what the sink holds may log as it goes.
        if (sink.use_count() > 1) sink.reset();
    }
    route.sinkReturned.notify_all();
}

}  // namespace

struct DCLogger::Output {
    /// Writes one entry now, on the calling thread.
    void write(const std::string& message) {
        std::lock_guard lock(fileMutex);
        if (file < 0) return;
        // One write per entry, so that even another process appending to the same file cannot
        // split it.
        std::string entry = localTimeStamp(std::time(nullptr));
        entry += ": ";
        entry += message;
        entry += '\n';
        writeFully(file, entry);
    }

    std::mutex fileMutex;  // guards `file`, held while an entry is written
    int file = -1;
    /// Writes the entries in the order they were logged. None in a forked child, where its
    /// thread does not exist.
    std::unique_ptr<DCISerialExecutor> writer;
};

DCLogger& DCLogger::sharedLogger() {
    // Never destroyed: any thread may log until the process ends. What is still queued when
    // the process exits normally, or through quick_exit, is written by the exit handler.
    static DCLogger* const logger = [] {
        auto* shared = new DCLogger(perUserTemporaryDirectory());
        std::atexit([] { sharedLogger().flush(); });
        std::at_quick_exit([] { sharedLogger().flush(); });
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
      previousLogFileURL_(KestlyPath::appendingComponent(directory, "com.kestly.previous.log")),
      output_(std::make_unique<Output>()) {
    if (preparePrivateDirectory(directory)) {
        // Each step may fail (no previous log, no current log, a read-only folder); the next
        // step still runs, and a failed open just leaves the logger without a file.
        ::unlink(previousLogFileURL_.c_str());
        ::rename(currentLogFileURL_.c_str(), previousLogFileURL_.c_str());
        output_->file = ::open(currentLogFileURL_.c_str(),
                               O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    } else {
        tellingOfRefusedFolder = true;
        echo(DCLogLevel::error, directory + " is not a directory of this user's own; the log file is off");
        tellingOfRefusedFolder = false;
    }
    // Installed once, with the first logger: before it, a fork has no logger to care for.
    [[maybe_unused]] static const int forkHandlers = pthread_atfork(prepareForFork, afterForkInParent, afterForkInChild);
    // Under the registry's lock, so that no fork falls between the writer's start and the
    // logger's registration.
    std::lock_guard lock(loggerRegistry().mutex);
    output_->writer = std::make_unique<DCISerialExecutor>("kestly.log");
    loggerRegistry().loggers.push_back(this);
}

DCLogger::~DCLogger() {
    {
        std::lock_guard lock(loggerRegistry().mutex);
        std::erase(loggerRegistry().loggers, this);
    }
    output_->writer.reset();  // writes what is still queued
    if (output_->file >= 0) ::close(output_->file);
}

// A fork copies the locks in whatever state other threads hold them, but not the threads: the
// file locks are taken around it, so the child finds them free and every file write whole.
// The child never touches the parent's writer, whose queue the parent goes on writing.
void DCLogger::prepareForFork() {
    echoRoute().mutex.lock();
    loggerRegistry().mutex.lock();
    for (DCLogger* logger : loggerRegistry().loggers) logger->output_->fileMutex.lock();
}

void DCLogger::afterForkInParent() {
    for (DCLogger* logger : loggerRegistry().loggers) logger->output_->fileMutex.unlock();
    loggerRegistry().mutex.unlock();
    echoRoute().mutex.unlock();
}

void DCLogger::afterForkInChild() {
    for (DCLogger* logger : loggerRegistry().loggers) {
        loggerRegistry().writersOfParent.push_back(std::move(logger->output_->writer));
        logger->output_->fileMutex.unlock();
    }
    loggerRegistry().mutex.unlock();
    echoRoute().mutex.unlock();
}

int DCLogger::logFile() const {
    std::lock_guard lock(output_->fileMutex);
    return output_->file;
}

void DCLogger::setLogFile(int file) {
    std::lock_guard lock(output_->fileMutex);
    if (file == output_->file) return;
    if (output_->file >= 0) ::close(output_->file);
    output_->file = file;
}

void DCLogger::log(std::string message) {
    Output& output = *output_;
    if (!output.writer) {
        output.write(message);
        return;
    }
    output.writer->submit([&output, message = std::move(message)] { output.write(message); });
}

void DCLogger::flush() {
    if (output_->writer) output_->writer->waitUntilIdle();
}

bool DCLogInfoIsSilenced() {
    const char* verbose = std::getenv("VERBOSE_LOGGING");
    return verbose && std::string_view(verbose) == "no";
}

void DCLogSetSink(DCLogLevel minimum, DCLogSink sink) {
    EchoRoute& route = echoRoute();
    auto replacement = sink ? std::make_shared<const DCLogSink>(std::move(sink)) : nullptr;
    std::shared_ptr<const DCLogSink> replaced;  // let go after the lock, as in `echo`
    std::unique_lock lock(route.mutex);
    route.minimum = minimum;
    replaced = std::exchange(route.sink, std::move(replacement));
    // Every other call of the replaced sink lets its copy go under the lock; this thread's own,
    // when it runs that sink, cannot.
    const long ownCopies = replaced && runningSink == replaced.get() ? 2 : 1;
    route.sinkReturned.wait(lock, [&] { return replaced.use_count() <= ownCopies; });
}

void DCLogMessage(DCLogLevel level, std::string message) {
    if (tellingOfRefusedFolder) return;
    echo(level, message);
    DCLogger::sharedLogger().log(std::move(message));
}
