#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIFormat.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

/// The library's log file. Every message is appended as one entry, "%Y-%m-%d %H:%M:%S: "
/// (local time at the moment of writing), the message and "\n", by one writer thread, so
/// entries keep the order in which they were logged and never interleave, and no caller ever
/// waits for the disk.
///
/// When a logger starts, the log of the run before becomes the previous log and an empty
/// current log is begun, so one generation survives. Nothing about the file is reported
/// but a folder that is not the user's own: when the file cannot be rotated, opened or
/// written, entries are silently lost and the echo of `DCLogInfo` and `DCLogError` (see
/// `DCLogSetSink`) still happens.
///
/// The logs tell what the user works on, so they live in a folder only the user can enter,
/// and are made readable by the user alone (0600) and never opened through a link.
///
/// A process forked while loggers live may go on logging in the child: there, with no writer
/// thread, each entry is written at once on the logging thread, and entries the parent had
/// queued are left to the parent.
class KESTLY_EXPORT DCLogger {
public:
    /// The process's logger, made on first use in `perUserTemporaryDirectory()` and kept until
    /// the process ends.
    static DCLogger& sharedLogger();
    /// `$TMPDIR` when set, else `$XDG_RUNTIME_DIR/kestly`, else "/tmp/kestly-<uid>".
    static std::string perUserTemporaryDirectory();

    /// A logger whose files live in `directory`: makes the folder (0700) when it is missing,
    /// rotates the files and starts the writer. Unless the folder is then a real directory
    /// (not a link) owned by this user, the logger says so once, as an error echoed as
    /// `DCLogSetSink` says, and writes no file.
    explicit DCLogger(const std::string& directory);
    /// Writes what is still queued, then stops the writer and closes the file.
    ~DCLogger();
    DCLogger(const DCLogger&) = delete;
    DCLogger& operator=(const DCLogger&) = delete;

    /// The path of "com.kestly.current.log".
    const std::string& currentLogFileURL() const { return currentLogFileURL_; }
    /// The path of "com.kestly.previous.log".
    const std::string& previousLogFileURL() const { return previousLogFileURL_; }
    /// The open current log, or -1 when it could not be opened.
    int logFile() const;
    /// Sends the entries not yet written to `file`, an open descriptor or -1 for none. The
    /// logger owns it from now on and closes the one it replaces.
    void setLogFile(int file);

    /// Queues one entry and returns at once. Any thread.
    void log(std::string message);
    /// Waits until every entry queued before the call is written.
    void flush();

private:
    /// The open file and the thread that writes to it.
    struct Output;

    static void prepareForFork();
    static void afterForkInParent();
    static void afterForkInChild();

    const std::string currentLogFileURL_;
    const std::string previousLogFileURL_;
    const std::unique_ptr<Output> output_;
};

/// How much a log line matters, least first.
enum class DCLogLevel { info, error };

/// Where a host routes the library's lines: each line's level and its message, unstamped.
using DCLogSink = std::function<void(DCLogLevel level, const std::string& message)>;

/// Echoes the lines of `minimum` and above to `sink`, or to standard error when `sink` is empty
/// (as before the first call, with `minimum` info). The log file is not affected: it gets
/// every line, whatever the level, unless `VERBOSE_LOGGING` silences it.
///
/// The sink runs on the thread that logs, before its `DCLogInfo` or `DCLogError` returns, and
/// on several threads at once when they log at once: keep it quick and thread-safe, and hand
/// a line to a user interface through that interface's own queue (`g_idle_add`,
/// `QMetaObject::invokeMethod`). A line it logs itself, directly or through the library, goes
/// to the log file only, never back to a sink; an exception it throws is dropped.
///
/// Once this returns, the sink it replaced runs no more, so what that sink used may go;
/// called from inside that sink, it waits for the sink's other calls but not its own. Any
/// thread.
KESTLY_EXPORT void DCLogSetSink(DCLogLevel minimum, DCLogSink sink);

/// Whether `DCLogInfo` is silenced: `VERBOSE_LOGGING` is exactly "no". Read at every call.
KESTLY_EXPORT bool DCLogInfoIsSilenced();
/// Echoes `message` (see `DCLogSetSink`), on standard error as one line stamped with the time,
/// the process name and ids, and appends it to the shared logger's file.
KESTLY_EXPORT void DCLogMessage(DCLogLevel level, std::string message);

/// Logs information, unless `VERBOSE_LOGGING` is "no". The format takes the platform's
/// conversions (`%@`, `%d`, `%lu`, `%s`...), see `DCIFormat`.
template <class... Args>
void DCLogInfo(std::string_view format, const Args&... args) {
    if (DCLogInfoIsSilenced()) return;
    DCLogMessage(DCLogLevel::info, DCIFormat(format, args...));
}

/// Logs an error, whatever `VERBOSE_LOGGING` says.
template <class... Args>
void DCLogError(std::string_view format, const Args&... args) {
    DCLogMessage(DCLogLevel::error, DCIFormat(format, args...));
}
