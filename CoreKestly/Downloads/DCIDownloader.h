#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/Actions/DCIActionQueue.h"
#include "CoreKestly/Platform/RunLoop/DCIAtomicSharedPtr.h"
#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Network/DCIURLConnection.h"
#include "CoreKestly/Platform/Network/DCIURLRequest.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

/// A download worker: a thread of its own that takes download actions from a queue and runs
/// the HTTP request of each, one at a time, reporting through the action: its status, its
/// context (status code, entity tag, sizes, error, received data) and, while enabled,
/// `DCIEventTypeDownloadProgress` events. Several workers may share one queue.
///
/// The host makes actions with the two factories, adds them to the queue, and cancels or
/// pauses one by setting its status to `DCIActionStatusCanceled` or `DCIActionStatusPaused`,
/// which the worker notices at the connection's next callback.
///
/// Threads: the worker's own thread runs its loop and every connection callback. The main
/// thread runs the start of each action, every `reset` and the progress handler; the worker
/// waits for those, so the host must keep `DCIRunLoop::main()` running and must never block
/// it waiting for a download. The thread keeps its worker alive until it ends, after `close`
/// and the current action, with `DCIEventTypeDownloaderStopped`; a host waits for that event,
/// and then for `waitUntilStopped`, before it exits.
class KESTLY_EXPORT DCIDownloader : public DCIObject,
                      public DCIURLConnectionDelegate,
                      public std::enable_shared_from_this<DCIDownloader> {
public:
    /// Whether progress ticks post `DCIEventTypeDownloadProgress`, for every worker from its
    /// next tick on. The sizes in the actions' contexts advance either way. On by default.
    static void setRequiresProgressEvents(bool requiresProgressEvents);

    /// A download action whose response body goes to the file at `destination`, which the
    /// worker replaces with an empty file when it starts. Without a destination (nothing) the
    /// action is refused into the context with a log line and runs as a data download.
    static std::shared_ptr<DCIAction> fileDownloadActionWithRequest(std::shared_ptr<DCIURLRequest> request,
                                                                    std::optional<std::string> destination);
    /// A download action whose response body is handed over under `kDCIDownloaderDataKey`.
    static std::shared_ptr<DCIAction> dataDownloadActionWithRequest(std::shared_ptr<DCIURLRequest> request);
    /// Writes the two size keys: the current size becomes `with` while the action runs,
    /// `of` once it is completed and 0 in any other status; the total becomes `of`.
    static void updateProgressOnAction(const std::shared_ptr<DCIAction>& action, uint64_t with, uint64_t of);

    /// No worker without a queue: always nullptr.
    static std::shared_ptr<DCIDownloader> init() { return nullptr; }
    /// A worker named "Downloader N", its thread started; nullptr for a null queue or when no
    /// thread can be made.
    static std::shared_ptr<DCIDownloader> initWithQueue(std::shared_ptr<DCIActionQueue> queue);
    DCIDownloader(const DCIDownloader&) = delete;
    DCIDownloader& operator=(const DCIDownloader&) = delete;
    ~DCIDownloader() override;

    /// Returns at once; the worker finishes its current action, if any, and then stops. The
    /// actions still queued stay in the queue. A closed worker cannot be restarted.
    void close();
    /// Blocks until the worker's thread has ended: it is still finishing when
    /// `DCIEventTypeDownloaderStopped` arrives, and a program that exits then would cut it off.
    /// Only once that event has arrived: before, the worker may need the main loop this blocks.
    /// On the worker's own thread it returns at once.
    void waitUntilStopped();
    /// Ends the worker's hold on its current action, writing the final sizes when a total was
    /// known, and closes the destination file. Runs on the main thread, waiting for it when
    /// called elsewhere. The connection callbacks call it at the end of every action.
    void reset();

    uint64_t currentDownloadedSize() const { return currentDownloadedSize_.load(); }
    uint64_t totalDownloadSize() const { return totalDownloadSize_.load(); }
    const std::shared_ptr<DCIActionQueue>& downloadQueue() const { return downloadQueue_; }
    bool complete() const { return complete_.load(); }
    std::shared_ptr<DCIAction> currentAction() const { return currentAction_.load(); }
    std::shared_ptr<DCIURLConnection> connection() const { return connection_.load(); }
    const std::string& name() const { return name_; }
    /// When the last progress line was logged, in seconds since 1 January 2001; 0 before any.
    double lastLogTime() const { return lastLogTime_.load(); }

    /// The worker's name.
    std::string description() const override { return name_; }

    // The connection's callbacks, on the worker's thread.
    void connection(DCIURLConnection& connection, int64_t didSendBodyData, int64_t totalBytesWritten,
                    int64_t totalBytesExpectedToWrite) override;
    void connection(DCIURLConnection& connection, const DCIURLResponse& didReceiveResponse) override;
    void connection(DCIURLConnection& connection, std::span<const uint8_t> didReceiveData) override;
    void connection(DCIURLConnection& connection, const DCIError& didFailWithError) override;
    void connectionDidFinishLoading(DCIURLConnection& connection) override;

private:
    DCIDownloader(std::shared_ptr<DCIActionQueue> queue, std::string name);

    void threadMain();
    /// The worker's loop, from its start to `close`; `threadMain` ends the worker however it ends.
    void serveQueue();
    void processAction(const std::shared_ptr<DCIAction>& action);
    void resetOnMainThread();
    void handleProgress();
    void addProgress(uint64_t bytes);
    void signalProgress();
    /// Runs `end`, the last step of an action, and then the reset (also when `end` throws), in
    /// one trip to the main thread: a small body waits for that thread once, not three times.
    void resetAfter(const std::function<void()>& end);

    /// The cancel test: when the host cancelled or paused the action, stops the request and
    /// resets. Answers whether the callback must end there.
    bool stopsForHost();
    /// Ends the current action Failed with `error`, logged, the connection cancelled.
    void failCurrentAction(const DCIError& error);
    /// Logs a progress line when more than a second has passed since the last one.
    void logProgressOncePerSecond(const char* format, uint64_t count, uint64_t total);
    /// The URL of the current action's request as a log line shows it.
    std::string loggedCurrentURL() const;

    std::atomic<uint64_t> currentDownloadedSize_{0};
    std::atomic<uint64_t> totalDownloadSize_{0};
    const std::shared_ptr<DCIActionQueue> downloadQueue_;
    std::atomic<bool> complete_{false};
    DCIAtomicSharedPtr<DCIAction> currentAction_;
    std::atomic<int> downloadFile_{-1};
    DCIAtomicSharedPtr<std::vector<uint8_t>> dataReceived_;
    DCIAtomicSharedPtr<DCIURLConnection> connection_;
    const std::string name_;
    std::atomic<double> lastLogTime_{0};

    /// Bytes counted on the worker's thread that the main thread has not taken yet.
    std::atomic<uint64_t> pendingProgress_{0};
    /// When the worker's thread last signalled the progress source; that thread only.
    std::chrono::steady_clock::time_point lastProgressSignal_;
    /// On the main loop; made and released by the worker's thread, which alone signals it.
    std::unique_ptr<DCIRunLoopSource> progressSource_;
    /// On the worker's loop, while bytes wait for the tick interval to end; that thread only.
    std::unique_ptr<DCIRunLoopSource> progressTimer_;
    /// On the worker's loop; `close` signals it to end an idle wait at once.
    DCIAtomicSharedPtr<DCIRunLoopSource> wakeSource_;
    /// Joined by `waitUntilStopped` or by the last owner; detached when that owner is the
    /// thread itself, ending.
    std::thread thread_;
    std::mutex threadMutex_;
};
