// The worker's life: its thread and loop, the start and end of each action, and progress.
// The connection's callbacks are in DCIDownloaderConnection.cpp.

#include "CoreKestly/Downloads/DCIDownloader.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/Values/DCIFormat.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// Plain process-wide values: the host makes workers and flips the switch from one thread at
// a time, but workers read them on their own threads.
std::atomic<bool> sendDownloadProgressEvents{true};
std::atomic<uint64_t> downloaderCount{1};

// The longest a worker runs its loop before it looks at its queue and its close flag again.
// An idle worker is woken at once by an addition, a resume or `close`; the slice bounds the
// wait for anything else that makes an action available, such as a queue resumed without
// telling its observers.
constexpr auto kLoopSlice = std::chrono::milliseconds(500);

constexpr auto kProgressTickInterval = std::chrono::milliseconds(25);

// How long an action's start or end step may wait for the main thread: a host sees no
// difference, and the steps of many small files reach it in a few wake-ups, not two per file.
constexpr auto kStepLatency = std::chrono::milliseconds(1);

// "Kestly" error codes.
constexpr int64_t kNoRequestErrorCode = 1;

std::shared_ptr<DCIAction> makeDownloadAction(std::shared_ptr<DCIURLRequest> request) {
    auto action = DCIAction::initWithCategory(DCIActionCategoryCommon, DCIActionTypeDownload);
    action->setContextObject(request, kDCIDownloaderRequestKey);
    DCIDownloader::updateProgressOnAction(action, 0, 0);
    return action;
}

void postWorkerEvent(uint64_t type, const std::shared_ptr<DCIDownloader>& worker) {
    auto event = DCIEvent::commonEventWithType(type);
    DCIDictionary context;
    context.emplace(kDCIDownloaderDownloaderKey, DCIValue(worker));
    event->setContext(std::move(context));
    DCIEventManager::postEvent(std::move(event));
}

// Replaces the file or link at `path` with a new empty file of our own, open for writing,
// with the mode the umask leaves of 0666 as any new file has. A file that cannot be removed
// (another user's, in a shared folder) or that appears in between fails the open rather than
// receive the body. What is no file, there or where a link leads, is written to as it is: a
// directory then fails to open, a device such as /dev/null takes the body, and a FIFO without
// a reader fails instead of blocking the worker.
int replaceWithEmptyFile(const std::string& path) {
    constexpr int kNewFile = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    // Most destinations are new: one call makes them.
    if (const int file = open(path.c_str(), kNewFile, 0666); file >= 0 || errno != EEXIST) return file;
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        return open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
    }
    unlink(path.c_str());
    return open(path.c_str(), kNewFile, 0666);
}

}  // namespace

void DCIDownloader::setRequiresProgressEvents(bool requiresProgressEvents) {
    sendDownloadProgressEvents.store(requiresProgressEvents);
}

std::shared_ptr<DCIAction> DCIDownloader::fileDownloadActionWithRequest(std::shared_ptr<DCIURLRequest> request,
                                                                        std::optional<std::string> destination) {
    auto action = makeDownloadAction(std::move(request));
    action->setContextObject(destination ? std::optional<DCIValue>(*destination) : std::nullopt,
                             kDCIDownloaderFilePathKey);
    return action;
}

std::shared_ptr<DCIAction> DCIDownloader::dataDownloadActionWithRequest(std::shared_ptr<DCIURLRequest> request) {
    return makeDownloadAction(std::move(request));
}

void DCIDownloader::updateProgressOnAction(const std::shared_ptr<DCIAction>& action, uint64_t with, uint64_t of) {
    if (!action) return;
    switch (action->status()) {
    case DCIActionStatusRunning: action->setContextObject(DCIValue(with), kDCIDownloaderCurrentDownloadSizeKey); break;
    case DCIActionStatusCompleted: action->setContextObject(DCIValue(of), kDCIDownloaderCurrentDownloadSizeKey); break;
    default: action->setContextObject(DCIValue(0), kDCIDownloaderCurrentDownloadSizeKey); break;
    }
    action->setContextObject(DCIValue(of), kDCIDownloaderTotalDownloadSizeKey);
}

DCIDownloader::DCIDownloader(std::shared_ptr<DCIActionQueue> queue, std::string name)
    : downloadQueue_(std::move(queue)), name_(std::move(name)) {}

std::shared_ptr<DCIDownloader> DCIDownloader::initWithQueue(std::shared_ptr<DCIActionQueue> queue) {
    if (!queue) return nullptr;
    DCIURLConnection::prepareLoading();
    auto worker = std::shared_ptr<DCIDownloader>(
        new DCIDownloader(std::move(queue), DCIFormat("Downloader %lu", downloaderCount.fetch_add(1))));
    try {
        // The thread owns the worker until its loop has ended.
        worker->thread_ = std::thread([worker] { worker->threadMain(); });
    } catch (const std::system_error& error) {
        DCLogError("%@ could not start its thread: %s", worker->name_, error.what());
        return nullptr;
    }
    return worker;
}

DCIDownloader::~DCIDownloader() {
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) thread_.detach();
    else thread_.join();  // past its loop: the thread let go of the worker last thing
}

void DCIDownloader::close() {
    complete_.store(true);
    if (auto wake = wakeSource_.load()) wake->signal();
}

void DCIDownloader::waitUntilStopped() {
    const std::lock_guard lock(threadMutex_);
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

void DCIDownloader::threadMain() {
    try {
        serveQueue();
    } catch (const std::exception& error) {
        DCLogError("%@ stopped: %s", name_, error.what());
    } catch (...) {
        DCLogError("%@ stopped on an unknown exception", name_);
    }
    // However the loop ended, the host hears that the worker stopped and that the action it
    // held failed; otherwise it would wait for them for ever.
    wakeSource_.store(nullptr);
    try {
        if (currentAction_.load())
            failCurrentAction(DCIError(kDCIURLErrorDomain, DCIURLErrorUnknown, "the download worker stopped"));
        // Through the main thread, after the end step of the last action.
        DCIRunLoop::main().performAsync(
            [self = shared_from_this()] { postWorkerEvent(DCIEventTypeDownloaderStopped, self); });
    } catch (...) {
        DCLogError("%@ could not tell that it stopped", name_);
    }
    progressTimer_.reset();
    progressSource_.reset();
}

void DCIDownloader::serveQueue() {
    DCIRunLoop& loop = DCIRunLoop::current();
    // The handler runs on the main thread and uses the worker, which this thread keeps alive;
    // the source goes before the thread ends, waiting out a handler under way.
    progressSource_ = DCIRunLoop::main().addSignalSource([this] { handleProgress(); });
    // An idle worker sleeps until its queue gets an action or resumes, or `close`.
    bool woken = false;
    const auto wake = std::shared_ptr<DCIRunLoopSource>(loop.addSignalSource([&woken] { woken = true; }));
    wakeSource_.store(wake);
    const auto additions = downloadQueue_->addAdditionObserver([wake] { wake->signal(); });
    const auto resumes = downloadQueue_->addPausedObserver([wake](bool isPrior, bool) {
        if (!isPrior) wake->signal();
    });
    postWorkerEvent(DCIEventTypeDownloaderStarted, shared_from_this());

    while (!complete_.load() || currentAction_.load()) {
        woken = false;
        if (currentAction_.load()) {
            // The slice ends as soon as the action does, so the next one starts at once.
            const auto refused = [this] { return refusedAction_.load() == actionNumber_; };
            loop.runUntil([&] { return !currentAction_.load() || refused(); }, kLoopSlice);
            if (currentAction_.load() && refused()) reset();
        } else if (auto action = downloadQueue_->popNextAction()) {
            processAction(action);
        } else {
            loop.runUntil([&] { return woken || complete_.load(); }, kLoopSlice);
        }
    }
}

void DCIDownloader::processAction(const std::shared_ptr<DCIAction>& action) {
    const int64_t status = action->status();
    if (action->commonType() != DCIActionTypeDownload || status == DCIActionStatusCanceled ||
        status == DCIActionStatusPaused) {
        return;
    }
    const auto pathValue = action->contextObjectForKey(kDCIDownloaderFilePathKey);
    const std::string* path = pathValue ? pathValue->string() : nullptr;
    const auto requestValue = action->contextObjectForKey(kDCIDownloaderRequestKey);
    const auto request = requestValue ? requestValue->object<DCIURLRequest>() : nullptr;

    // No callback would ever end an action without a request: it fails before anything else.
    if (!request) {
        const DCIError error("Kestly", kNoRequestErrorCode, "The download action carries no URL request");
        action->setContextObject(error, kDCIError);
        action->changeStatus(DCIActionStatusFailed);
        DCLogError("%@ Failed to start download for %@ with error %@", name_, path ? *path : "data", error);
        return;
    }

    if (path) {
        DCLogInfo("%@, Starting to download %@ - request = %@", name_, *path, request);
        const int file = replaceWithEmptyFile(*path);
        if (file < 0) {
            const DCIError error = DCIError::posixError(errno, "open " + *path);
            action->setContextObject(error, kDCIError);
            action->changeStatus(DCIActionStatusFailed);
            DCLogInfo("%@ Failed to start download for %@ with error %@", name_, *path, error);
            return;
        }
        downloadFile_.store(file);
    } else {
        DCLogInfo("%@ Downloading data for %@", name_, request);
    }

    currentAction_.store(action);
    action->setContextObject(shared_from_this(), kDCIDownloaderDownloaderKey);
    expectedTotal_ = 0;
    const uint64_t number = ++actionNumber_;
    auto connection = DCIURLConnection::initWithRequest(request, weak_from_this());
    connection_.store(connection);
    DCLogInfo("ACF CONNECTION START %@ (%@)",
              [&] { return DCILoggedText(DCIURLWithoutCredentials(request->URL())); }, name_);
    // The test of the status and its change to Running happen together on the main thread,
    // where the host changes statuses too; the worker does not wait for them, and the request
    // goes out at once. The start step is queued first, ahead of any end step.
    DCIRunLoop::main().performAsync(
        [self = shared_from_this(), action, number] { self->startOnMainThread(action, number); }, kStepLatency);
    connection->start();
}

void DCIDownloader::startOnMainThread(const std::shared_ptr<DCIAction>& action, uint64_t number) {
    if (action->status() != DCIActionStatusPending) {
        refusedAction_.store(number);
        if (const auto wake = wakeSource_.load()) wake->signal();
        return;
    }
    progressAction_ = action;
    currentDownloadedSize_.store(0);
    totalDownloadSize_.store(0);
    action->changeStatus(DCIActionStatusRunning);
    startedAction_.store(number);
}

void DCIDownloader::addProgress(uint64_t bytes) {
    heldProgress_ += bytes;
    passProgressOn();
}

void DCIDownloader::passProgressOn() {
    if (heldProgress_ == 0) return;
    const auto now = std::chrono::steady_clock::now();
    const bool running = startedAction_.load() == actionNumber_;
    // The main thread is woken at most once a tick per worker, so that it handles a few dozen
    // ticks a second at full speed rather than one per chunk.
    if (running && now - lastProgressSignal_ >= kProgressTickInterval) {
        // The total first: the main thread reads it after the bytes.
        totalDownloadSize_.store(expectedTotal_);
        pendingProgress_.fetch_add(std::exchange(heldProgress_, 0));
        lastProgressSignal_ = now;
        progressSource_->signal();
    } else if (!progressTimer_) {
        // Bytes within a tick, or before the start step has run, are looked at again when the
        // tick ends even if the stream stalls there: the start step may come after the last.
        const auto wait = running ? lastProgressSignal_ + kProgressTickInterval - now : kProgressTickInterval;
        progressTimer_ = DCIRunLoop::current().addTimer(wait, false, [this] {
            progressTimer_.reset();
            passProgressOn();
        });
    }
}

void DCIDownloader::handleProgress() {
    const uint64_t bytes = pendingProgress_.exchange(0);
    const auto& action = progressAction_;
    // A tick whose bytes were taken already, by a flush or a reset, has nothing to tell.
    if (!action || bytes == 0) return;
    const uint64_t current = currentDownloadedSize_.fetch_add(bytes) + bytes;
    const uint64_t total = totalDownloadSize_.load();
    updateProgressOnAction(action, current, total);
    if (!sendDownloadProgressEvents.load()) return;
    auto event = DCIEvent::commonEventWithType(DCIEventTypeDownloadProgress);
    event->setAction(action);
    // The counts of this tick: the action's own have moved on by the time a busy host reads them.
    DCIDictionary context{{std::string(kDCIDownloaderCurrentDownloadSizeKey), DCIValue(current)}};
    if (total != 0) context.emplace(kDCIDownloaderTotalDownloadSizeKey, DCIValue(total));
    event->setContext(std::move(context));
    DCIEventManager::postEvent(std::move(event));
}

void DCIDownloader::endCurrentAction(Ending ending) {
    const auto action = currentAction_.load();
    if (const auto current = connection_.load()) current->cancel();
    if (const int file = downloadFile_.exchange(-1); file >= 0) ::close(file);
    dataReceived_.store(nullptr);
    connection_.store(nullptr);
    currentAction_.store(nullptr);
    const uint64_t held = std::exchange(heldProgress_, 0);
    if (!action) return;
    // Queued behind the action's start step, so the main thread runs the two in order.
    DCIRunLoop::main().performAsync(
        [self = shared_from_this(), action, ending = std::move(ending), held, total = expectedTotal_] {
            self->endOnMainThread(*action, ending, held, total);
        },
        kStepLatency);
}

void DCIDownloader::endOnMainThread(DCIAction& action, const Ending& ending, uint64_t heldBytes, uint64_t total) {
    // Not the action the start step turned Running: it keeps its status.
    if (progressAction_.get() != &action) return;
    pendingProgress_.fetch_add(heldBytes);
    totalDownloadSize_.store(total);
    const auto letGo = [&] {
        // Bytes not yet handled belong to the action that ends here: a tick after this counts
        // only the next action's bytes.
        pendingProgress_.store(0);
        if (total != 0) updateProgressOnAction(progressAction_, total, total);
        progressAction_ = nullptr;
    };
    try {
        if (ending && !isStoppedByHost(action.status())) ending(action);
    } catch (...) {
        letGo();  // the sizes are final whatever the ending did
        throw;
    }
    letGo();
}
