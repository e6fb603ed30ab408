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
/// Threads: the worker's own thread runs its loop, starts each connection and runs every
/// connection callback. The main thread runs the start step of each action (the test that it
/// is still Pending and its change to Running), its end step (its final status and sizes) and
/// the progress handler, so the host must keep `DCIRunLoop::main()` running and must never
/// block it waiting for a download. The worker hands both steps over without waiting for
/// them, and the main thread runs each action's steps in order: no progress event of an
/// action comes before its Running or after its end, and an action whose start step finds it
/// no longer Pending keeps its status while its connection is cancelled. The thread keeps its
/// worker alive until it ends, after `close` and the current action, with
/// `DCIEventTypeDownloaderStopped`, which comes after the end step of the worker's last
/// action; a host waits for that event, and then for `waitUntilStopped`, before it exits.
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
    /// The start step, on the main thread: an action still Pending turns Running and its
    /// counts start there; for any other the worker is told to let the action numbered
    /// `number` go.
    void startOnMainThread(const std::shared_ptr<DCIAction>& action, uint64_t number);
    void handleProgress();
    /// Counts bytes moved, on the worker's thread, and hands them over with the expected total
    /// once the start step has run: before it, the main thread's counts are another action's.
    void addProgress(uint64_t bytes);
    /// Hands the held bytes over, or looks at them again when the tick ends.
    void passProgressOn();

    /// What the main thread does to end an action: its final status and what goes with it.
    using Ending = std::function<void(DCIAction&)>;
    /// On the worker's thread: lets go of the current action (its connection, cancelled, its
    /// file, closed, and its body), so the next one can start at once, and hands its `ending`
    /// to the main thread without waiting. There, for an action the start step turned
    /// Running, the ending runs unless the host cancelled or paused the action, whose status
    /// then stays as the host set it; then the final sizes are written when a total was known.
    void endCurrentAction(Ending ending);
    /// `endCurrentAction` without a status change.
    void reset() { endCurrentAction(nullptr); }
    /// `heldBytes` and `total` are the action's counts that the worker had not handed over.
    void endOnMainThread(DCIAction& action, const Ending& ending, uint64_t heldBytes, uint64_t total);
    static bool isStoppedByHost(int64_t status) {
        return status == DCIActionStatusCanceled || status == DCIActionStatusPaused;
    }

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

    /// Bytes counted on the worker's thread that the main thread has not taken yet. They all
    /// belong to `progressAction_`: the worker adds an action's bytes only once its start
    /// step has run, which is after the end step that took what was left of the last one's.
    std::atomic<uint64_t> pendingProgress_{0};
    /// The action whose start step has run and whose end step has not; the main thread only.
    std::shared_ptr<DCIAction> progressAction_;
    /// The worker's own counts of the current action, that thread only: bytes not handed over
    /// yet (before the start step has run, or within a tick), and the expected total.
    uint64_t heldProgress_ = 0;
    uint64_t expectedTotal_ = 0;
    /// The current action's number among those the worker took; that thread only.
    uint64_t actionNumber_ = 0;
    /// The numbers of the last actions whose start steps ran, and found them Pending or not.
    /// By number, as the start step of an action that ended already may run while the next
    /// one loads.
    std::atomic<uint64_t> startedAction_{0};
    std::atomic<uint64_t> refusedAction_{0};
    /// When the worker's thread last signalled the progress source; that thread only.
    std::chrono::steady_clock::time_point lastProgressSignal_;
    /// On the main loop; made and released by the worker's thread, which alone signals it.
    std::unique_ptr<DCIRunLoopSource> progressSource_;
    /// On the worker's loop, while bytes wait for the tick to end or for the start step; that
    /// thread only.
    std::unique_ptr<DCIRunLoopSource> progressTimer_;
    /// On the worker's loop; `close` signals it to end an idle wait at once.
    DCIAtomicSharedPtr<DCIRunLoopSource> wakeSource_;
    /// Joined by `waitUntilStopped` or by the last owner; detached when that owner is the
    /// thread itself, ending.
    std::thread thread_;
    std::mutex threadMutex_;
};
