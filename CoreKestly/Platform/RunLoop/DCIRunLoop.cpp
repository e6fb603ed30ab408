#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"

#include "CoreKestly/Platform/RunLoop/DCIRunLoopInternal.h"

#include <fcntl.h>
#include <linux/kcmp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <future>
#include <limits>
#include <string>
#include <utility>

namespace {
using Clock = DCIRunLoop::Clock;
using Entry = DCIRunLoopSourceEntry;

// epoll reports carry these ids for the loop's own descriptors; sources are numbered after them.
constexpr uint64_t kWakeId = 0;
constexpr uint64_t kTimerId = 1;
constexpr uint64_t kClosuresTimerId = 2;
constexpr uint64_t kFirstSourceId = 3;
constexpr int kMaxEventsPerPass = 64;

// glibc asks the kernel for the thread's id on every call, and loops ask on every wake-up, so
// each thread keeps its answer. A forked child's one thread has a new id: it forgets there.
struct ThreadIdentity {
    pid_t id = 0;
    bool isMain = false;
};
thread_local ThreadIdentity threadIdentity;

const ThreadIdentity& currentThread() {
    if (threadIdentity.id == 0) {
        static const bool forgottenInForkedChild = pthread_atfork(nullptr, nullptr, [] { threadIdentity = {}; }) == 0;
        (void)forgottenInForkedChild;
        const pid_t id = gettid();
        threadIdentity = {id, id == getpid()};
    }
    return threadIdentity;
}

void reportProblem(const std::string& problem) {
    // The logger is built on run loops, so standard error is all a loop has; one write keeps
    // lines of several threads apart.
    const std::string line = "kestly: " + problem + "\n";
    while (::write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {}
}

template <typename Function>
void invokeReportingExceptions(Function&& function) noexcept {
    try {
        function();
    } catch (const std::exception& exception) {
        reportProblem(std::string("uncaught exception in run-loop callback: ") + exception.what());
    } catch (...) {
        reportProblem("uncaught exception in run-loop callback: not a std::exception");
    }
}

void bumpCounter(int fd) {
    const uint64_t one = 1;
    while (::write(fd, &one, sizeof one) < 0 && errno == EINTR) {}
}

void drainCounter(int fd) {
    uint64_t count;
    while (::read(fd, &count, sizeof count) < 0 && errno == EINTR) {}
}

bool epollControl(int epollFd, int operation, int fd, uint32_t events, uint64_t id) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(epollFd, operation, fd, &event) == 0;
}

/// Whether two descriptors of this process name one open file. kcmp answers exactly; where a
/// sandbox forbids it, device and inode are the next best thing (they cannot tell apart two
/// descriptors of one anonymous kind, such as two inotify instances).
bool sameOpenFile(int a, int b) {
    const long answer = ::syscall(SYS_kcmp, getpid(), getpid(), KCMP_FILE, a, b);
    if (answer >= 0) return answer == 0;
    if (errno == EBADF) return false;
    struct stat first {}, second {};
    return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

/// `start + interval`, saturating: intervals such as "never" must not overflow the clock.
Clock::time_point later(Clock::time_point start, Clock::duration interval) {
    if (interval <= Clock::duration::zero()) return start;
    if (interval > Clock::time_point::max() - start) return Clock::time_point::max();
    return start + interval;
}

/// Arms a timer descriptor to fire once, at `deadline`.
void armDeadline(int timerFd, Clock::time_point deadline) {
    // Both count from the same CLOCK_MONOTONIC origin; zero would disarm, so at least 1 ns.
    const int64_t ns = std::max<int64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(deadline.time_since_epoch()).count(), 1);
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
    when.it_value.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    timerfd_settime(timerFd, TFD_TIMER_ABSTIME, &when, nullptr);
}

int millisecondsUntil(Clock::time_point deadline) {
    if (deadline == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

std::shared_ptr<Entry> makeEntry(const std::shared_ptr<DCIRunLoopState>& state, Entry::Kind kind,
                                 Entry::Callback callback) {
    return std::make_shared<Entry>(state, kind, state->nextSourceId.fetch_add(1, std::memory_order_relaxed),
                                   std::move(callback));
}

/// One turn of a loop: waits for readiness, then runs the closures, signal sources, timers and
/// descriptor sources that are ready. Each callback is claimed under the mutex just before it
/// runs, so a source detached meanwhile, or already handled by a run nested in an earlier
/// callback of this pass, is skipped.
class Pass {
public:
    Pass(DCIRunLoopState& state, bool stoppable) : state_(state), stoppable_(stoppable), number_(++state.passCount) {
        ++state_.passDepth;
        // This pass looks at everything, so a wake-up asked for before it is answered.
        state_.selfWakePending = false;
    }
    ~Pass() { --state_.passDepth; }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    std::optional<bool> run(int timeoutMs) {
        epoll_event events[kMaxEventsPerPass];
        int count = epoll_wait(state_.epollFd, events, kMaxEventsPerPass, timeoutMs);
        if (count < 0) {
            if (errno != EINTR) return std::nullopt;
            count = 0;
        }
        // Drained before scanning, so that what is signalled or queued from here on wakes the
        // next pass.
        for (int i = 0; i < count; ++i) {
            if (events[i].data.u64 == kWakeId) drainCounter(state_.wakeFd);
            if (events[i].data.u64 == kTimerId) drainCounter(state_.timerFd);
            if (events[i].data.u64 == kClosuresTimerId) drainCounter(state_.closuresTimerFd);
        }
        runClosures();
        runSignalSources();
        runTimers();
        runDescriptorSources(events, count);
        // Work left behind by a stop must keep the descriptor readable for the next pass.
        if (interrupted_) state_.wake();
        return ranCallback_;
    }

private:
    bool mayGoOn() {
        if (stoppable_ && !interrupted_ && state_.stopRequested.load(std::memory_order_acquire)) interrupted_ = true;
        return !interrupted_;
    }

    void runClosures() {
        size_t queued;
        {
            std::lock_guard lock(state_.mutex);
            state_.takeClosures();
            queued = state_.closures.size();
        }
        // Only those queued before the pass: a closure that queues another must not starve the
        // sources. One at a time, so a run nested in a closure keeps the order.
        for (; queued > 0 && mayGoOn(); --queued) {
            DCIRunLoop::Closure closure;
            {
                std::lock_guard lock(state_.mutex);
                if (state_.closures.empty()) return;
                closure = std::move(state_.closures.front());
                state_.closures.pop_front();
            }
            ++state_.callbacksRunning;
            invokeReportingExceptions(closure);
            --state_.callbacksRunning;
            ranCallback_ = true;
        }
    }

    void runSignalSources() {
        std::vector<std::shared_ptr<Entry>> raised;
        {
            std::lock_guard lock(state_.mutex);
            for (const auto& entry : state_.signalSources)
                if (entry->signalled.load(std::memory_order_relaxed)) raised.push_back(entry);
        }
        for (const auto& entry : raised) {
            if (!mayGoOn()) return;
            if (claim(*entry, [&] { return entry->signalled.exchange(false, std::memory_order_acq_rel); }))
                invoke(entry, 0);
        }
    }

    void runTimers() {
        std::vector<std::shared_ptr<Entry>> due;
        {
            std::lock_guard lock(state_.mutex);
            const auto now = Clock::now();
            std::copy_if(state_.timers.begin(), state_.timers.end(), std::back_inserter(due),
                         [&](const auto& entry) { return entry->deadline <= now; });
            std::sort(due.begin(), due.end(), [](const auto& a, const auto& b) { return a->deadline < b->deadline; });
        }
        for (const auto& entry : due) {
            if (!mayGoOn()) return;
            if (claim(*entry, [&] { return fire(*entry); })) invoke(entry, 0);
        }
    }

    /// With the mutex held: whether the timer is still due and, if so, its next deadline.
    bool fire(Entry& timer) {
        const auto now = Clock::now();
        if (timer.deadline > now) return false;
        if (timer.repeats) {
            timer.deadline = later(timer.deadline, timer.interval);
            if (timer.deadline <= now) timer.deadline = later(now, timer.interval);
        } else {
            timer.detached = true;
            std::erase_if(state_.timers, [&](const auto& entry) { return entry.get() == &timer; });
        }
        state_.armTimerDescriptor();
        return true;
    }

    void runDescriptorSources(const epoll_event* events, int count) {
        std::vector<std::pair<std::shared_ptr<Entry>, uint32_t>> ready;
        {
            std::lock_guard lock(state_.mutex);
            // An id not found here is a source removed after the wait collected its report: its
            // registration went with it.
            for (int i = 0; i < count; ++i) {
                const uint64_t id = events[i].data.u64;  // a copy: epoll_event is packed
                const auto found = state_.fileDescriptorSources.find(id);
                if (found != state_.fileDescriptorSources.end()) ready.emplace_back(found->second, events[i].events);
            }
        }
        for (const auto& [entry, occurred] : ready) {
            if (!mayGoOn()) return;
            Entry& source = *entry;
            const bool fresh = claim(source, [&] {
                if (source.lastPass >= number_) return false;
                if (!state_.ownerStillHoldsWatchedFile(source)) {
                    state_.dropOrphan(source);
                    return false;
                }
                source.lastPass = number_;
                return true;
            });
            if (fresh) invoke(entry, occurred);
        }
    }

    template <typename Condition>
    bool claim(Entry& entry, Condition stillReady) {
        std::lock_guard lock(state_.mutex);
        if (entry.detached || !stillReady()) return false;
        ++entry.runningCallbacks;
        return true;
    }

    void invoke(const std::shared_ptr<Entry>& entry, uint32_t events) {
        ++state_.callbacksRunning;
        invokeReportingExceptions([&] { entry->callback(events); });
        --state_.callbacksRunning;
        ranCallback_ = true;
        std::lock_guard lock(state_.mutex);
        if (--entry->runningCallbacks == 0 && entry->detached) state_.callbackReturned.notify_all();
    }

    DCIRunLoopState& state_;
    const bool stoppable_;
    const uint64_t number_;
    bool ranCallback_ = false;
    bool interrupted_ = false;
};

/// Held by a run: when the outermost one returns with a wake-up its own thread asked for still
/// unanswered, the descriptor is made readable for the host's loop, if one watches it; the
/// loop's next run looks at the pending wake-up itself.
class WritesPendingSelfWake {
public:
    explicit WritesPendingSelfWake(DCIRunLoopState& state) : state_(state) {}
    ~WritesPendingSelfWake() {
        if (state_.descriptorShared.load()) state_.writePendingSelfWake();
    }
    WritesPendingSelfWake(const WritesPendingSelfWake&) = delete;
    WritesPendingSelfWake& operator=(const WritesPendingSelfWake&) = delete;

private:
    DCIRunLoopState& state_;
};
}  // namespace

// MARK: - State

DCIRunLoopState::DCIRunLoopState(pid_t owner)
    : ownerThread(owner),
      epollFd(epoll_create1(EPOLL_CLOEXEC)),
      wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      timerFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      closuresTimerFd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      nextSourceId(kFirstSourceId) {
    const bool usable = epollFd >= 0 && wakeFd >= 0 && timerFd >= 0 && closuresTimerFd >= 0 &&
                        epollControl(epollFd, EPOLL_CTL_ADD, wakeFd, EPOLLIN, kWakeId) &&
                        epollControl(epollFd, EPOLL_CTL_ADD, timerFd, EPOLLIN, kTimerId) &&
                        epollControl(epollFd, EPOLL_CTL_ADD, closuresTimerFd, EPOLLIN, kClosuresTimerId);
    // Without descriptors every run returns at once; nothing else can be done about it here.
    if (!usable) reportProblem(std::string("cannot create a run loop: ") + std::strerror(errno));
}

DCIRunLoopState::~DCIRunLoopState() {
    for (int fd : {epollFd, wakeFd, timerFd, closuresTimerFd})
        if (fd >= 0) ::close(fd);
}

bool DCIRunLoopState::isOwnerThread() const { return currentThread().id == ownerThread; }

void DCIRunLoopState::wake() {
    // The loop's own thread, inside a pass or with no host loop watching the descriptor, runs
    // a pass before it waits, and the run does not wait while this is pending: no system call.
    if (isOwnerThread() && (passDepth > 0 || !descriptorShared.load(std::memory_order_acquire))) {
        selfWakePending = true;
        return;
    }
    bumpCounter(wakeFd);
}

void DCIRunLoopState::writePendingSelfWake() {
    if (passDepth > 0 || !selfWakePending) return;
    selfWakePending = false;
    bumpCounter(wakeFd);
}

void DCIRunLoopState::enqueue(Closure closure, Clock::duration latency) {
    bool wakesNow = false;
    std::optional<Clock::time_point> deadline;
    {
        std::lock_guard lock(mutex);
        // Only a closure being dropped by close() can get here; it goes with the loop.
        if (closed) return;
        closures.push_back(std::move(closure));
        if (latency <= Clock::duration::zero()) {
            wakesNow = !std::exchange(closuresWakeArmed, true);
        } else if (!closuresWakeArmed && !closuresDeadlineArmed) {
            closuresDeadlineArmed = true;
            deadline = later(Clock::now(), latency);
        }
    }
    if (wakesNow) wake();
    // Armed unlocked, as a system call under the mutex holds up every thread that posts. Two
    // armings may land out of order; the later deadline then gives way to the earlier one,
    // which only wakes the loop sooner.
    if (deadline) armDeadline(closuresTimerFd, *deadline);
}

void DCIRunLoopState::takeClosures() {
    closuresWakeArmed = false;
    // Left armed: disarming here could undo an arming for closures queued after this. A
    // deadline firing late finds no closure, which costs one spare pass.
    closuresDeadlineArmed = false;
}

void DCIRunLoopState::close() {
    std::deque<Closure> droppedClosures;
    std::vector<std::shared_ptr<Entry>> droppedSources;
    {
        std::lock_guard lock(mutex);
        closed = true;
        droppedClosures.swap(closures);
        droppedSources = std::move(signalSources);
        droppedSources.insert(droppedSources.end(), timers.begin(), timers.end());
        for (auto& [id, entry] : fileDescriptorSources) droppedSources.push_back(entry);
        signalSources.clear();
        timers.clear();
        for (const auto& entry : droppedSources) {
            if (entry->kind == Entry::Kind::fileDescriptor) unwatch(*entry);
            entry->detached = true;
        }
    }
    // Destroyed here, unlocked: what the closures and callbacks hold may call back into the loop.
}

bool DCIRunLoopState::runUntil(Clock::time_point deadline, const std::function<bool()>* predicate) {
    if (!isOwnerThread()) return false;
    const WritesPendingSelfWake pendingWake(*this);
    for (bool firstPass = true;; firstPass = false) {
        if (predicate && (*predicate)()) return true;
        if (stopRequested.exchange(false, std::memory_order_acq_rel)) return false;
        if (!firstPass && Clock::now() >= deadline) return false;
        // Nested in a callback, the work an outer pass has collected but not yet run is ready
        // without the descriptor saying so: the first pass looks without waiting.
        const bool mayWait = (!firstPass || callbacksRunning == 0) && !selfWakePending;
        if (!runPass(mayWait ? millisecondsUntil(deadline) : 0, true)) return false;
    }
}

std::optional<bool> DCIRunLoopState::runPass(int timeoutMs, bool stoppable) {
    return Pass(*this, stoppable).run(timeoutMs);
}

void DCIRunLoopState::detach(Entry& entry) {
    std::unique_lock lock(mutex);
    if (!entry.detached) {
        entry.detached = true;
        const auto isEntry = [&](const auto& attached) { return attached.get() == &entry; };
        switch (entry.kind) {
        case Entry::Kind::signal:
            std::erase_if(signalSources, isEntry);
            break;
        case Entry::Kind::timer:
            std::erase_if(timers, isEntry);
            armTimerDescriptor();
            break;
        case Entry::Kind::fileDescriptor:
            unwatch(entry);
            break;
        }
    }
    // On the loop's own thread the running callback is the caller, or encloses it.
    if (!isOwnerThread()) callbackReturned.wait(lock, [&] { return entry.runningCallbacks == 0; });
}

void DCIRunLoopState::armTimerDescriptor() {
    const auto earliest = std::min_element(timers.begin(), timers.end(),
                                           [](const auto& a, const auto& b) { return a->deadline < b->deadline; });
    if (earliest != timers.end()) {
        armDeadline(timerFd, (*earliest)->deadline);
        return;
    }
    const itimerspec disarmed{};
    timerfd_settime(timerFd, TFD_TIMER_ABSTIME, &disarmed, nullptr);
}

// epoll keys a registration by open file *and* descriptor number, and removes it by number.
// Were the owner's descriptor registered, a source removed after its owner closed the
// descriptor would remove whatever registration a newer file holds under the reused number,
// or none at all while a duplicate keeps the file open, which epoll then keeps reporting. So
// the loop registers a duplicate of its own, which only it closes, once the registration ended.
bool DCIRunLoopState::watch(Entry& entry, uint32_t events) {
    const auto sameNumber = std::find_if(fileDescriptorSources.begin(), fileDescriptorSources.end(),
                                         [&](const auto& attached) { return attached.second->fileDescriptor == entry.fileDescriptor; });
    if (sameNumber != fileDescriptorSources.end()) {
        if (ownerStillHoldsWatchedFile(*sameNumber->second)) return false;
        dropOrphan(*sameNumber->second);
    }
    const int duplicate = entry.fileDescriptor < 0 ? -1 : fcntl(entry.fileDescriptor, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) return false;
    if (!epollControl(epollFd, EPOLL_CTL_ADD, duplicate, events, entry.id)) {
        ::close(duplicate);
        return false;
    }
    entry.watchedDescriptor = duplicate;
    return true;
}

bool DCIRunLoopState::ownerStillHoldsWatchedFile(const Entry& entry) const {
    return sameOpenFile(entry.fileDescriptor, entry.watchedDescriptor);
}

void DCIRunLoopState::dropOrphan(Entry& entry) {
    reportProblem("descriptor " + std::to_string(entry.fileDescriptor) +
                  " was closed before its run-loop source was removed; the source is removed");
    entry.detached = true;
    unwatch(entry);
}

void DCIRunLoopState::unwatch(Entry& entry) {
    if (entry.watchedDescriptor >= 0) {
        epoll_ctl(epollFd, EPOLL_CTL_DEL, entry.watchedDescriptor, nullptr);
        ::close(entry.watchedDescriptor);
        entry.watchedDescriptor = -1;
    }
    fileDescriptorSources.erase(entry.id);
}

// MARK: - Loop

DCIRunLoop& DCIRunLoop::main() {
    // Deliberately leaked: other threads may still signal and perform on it while the process
    // runs its static destructors.
    static DCIRunLoop* const loop = new DCIRunLoop(getpid());
    return *loop;
}

DCIRunLoop& DCIRunLoop::current() {
    if (DCIIsMainThread()) return main();
    thread_local const std::unique_ptr<DCIRunLoop> loop(new DCIRunLoop(currentThread().id));
    return *loop;
}

DCIRunLoop::DCIRunLoop(int ownerThreadId) : state_(std::make_shared<DCIRunLoopState>(ownerThreadId)) {}

DCIRunLoop::~DCIRunLoop() { state_->close(); }

void DCIRunLoop::run() { state_->runUntil(Clock::time_point::max(), nullptr); }

void DCIRunLoop::runUntil(Clock::time_point deadline) { state_->runUntil(deadline, nullptr); }

bool DCIRunLoop::runUntil(const std::function<bool()>& predicate, Clock::duration timeout) {
    return state_->runUntil(later(Clock::now(), timeout), &predicate);
}

bool DCIRunLoop::runOnce() {
    if (!state_->isOwnerThread()) return false;
    const WritesPendingSelfWake pendingWake(*state_);
    return state_->runPass(0, false).value_or(false);
}

// Calls from other threads hold the state for their whole length: once the loop sees their
// work, its thread may end and destroy the loop object while they are still returning.

void DCIRunLoop::stop() {
    const std::shared_ptr<DCIRunLoopState> state = state_;
    state->stopRequested.store(true, std::memory_order_release);
    state->wake();
}

int DCIRunLoop::fileDescriptor() const {
    DCIRunLoopState& state = *state_;
    // From now on a host's loop may be what waits: a wake-up the owner kept to itself is
    // written. Another thread cannot see whether one is pending, and writes in any case.
    if (!state.descriptorShared.exchange(true, std::memory_order_acq_rel)) {
        if (state.isOwnerThread()) {
            state.writePendingSelfWake();
        } else {
            bumpCounter(state.wakeFd);
        }
    }
    return state.epollFd;
}

bool DCIRunLoop::isCurrent() const { return state_->isOwnerThread(); }

void DCIRunLoop::performAsync(Closure closure) { performAsync(std::move(closure), Clock::duration::zero()); }

void DCIRunLoop::performAsync(Closure closure, Clock::duration latency) {
    const std::shared_ptr<DCIRunLoopState> state = state_;
    state->enqueue(std::move(closure), latency);
}

void DCIRunLoop::performSync(const Closure& closure) {
    if (isCurrent()) {
        invokeReportingExceptions(closure);
        return;
    }
    auto done = std::make_shared<std::promise<void>>();
    const std::future<void> finished = done->get_future();
    performAsync([&closure, done = std::move(done)] {
        invokeReportingExceptions(closure);
        done->set_value();
    });
    // Also returns if the loop dies first: the dropped closure breaks the promise.
    finished.wait();
}

std::unique_ptr<DCIRunLoopSource> DCIRunLoop::addSignalSource(Closure callback) {
    auto entry = makeEntry(state_, Entry::Kind::signal, [callback = std::move(callback)](uint32_t) { callback(); });
    std::lock_guard lock(state_->mutex);
    state_->signalSources.push_back(entry);
    return std::unique_ptr<DCIRunLoopSource>(new DCIRunLoopSource(std::move(entry)));
}

std::unique_ptr<DCIRunLoopSource> DCIRunLoop::addFileDescriptorSource(int fd, uint32_t events,
                                                                      std::function<void(uint32_t)> callback) {
    auto entry = makeEntry(state_, Entry::Kind::fileDescriptor, std::move(callback));
    entry->fileDescriptor = fd;
    std::lock_guard lock(state_->mutex);
    if (!state_->watch(*entry, events)) return nullptr;
    state_->fileDescriptorSources.emplace(entry->id, entry);
    return std::unique_ptr<DCIRunLoopSource>(new DCIRunLoopSource(std::move(entry)));
}

void DCIRunLoop::modifyFileDescriptorSource(DCIRunLoopSource& source, uint32_t events) {
    Entry& entry = *source.entry_;
    std::lock_guard lock(state_->mutex);
    if (entry.loop != state_ || entry.kind != Entry::Kind::fileDescriptor || entry.detached) return;
    epollControl(state_->epollFd, EPOLL_CTL_MOD, entry.watchedDescriptor, events, entry.id);
}

std::unique_ptr<DCIRunLoopSource> DCIRunLoop::addTimer(Clock::duration interval, bool repeats, Closure callback) {
    auto entry = makeEntry(state_, Entry::Kind::timer, [callback = std::move(callback)](uint32_t) { callback(); });
    entry->interval = std::max(interval, Clock::duration::zero());
    entry->repeats = repeats;
    std::lock_guard lock(state_->mutex);
    entry->deadline = later(Clock::now(), entry->interval);
    state_->timers.push_back(entry);
    state_->armTimerDescriptor();
    return std::unique_ptr<DCIRunLoopSource>(new DCIRunLoopSource(std::move(entry)));
}

// MARK: - Sources

DCIRunLoopSource::~DCIRunLoopSource() { entry_->loop->detach(*entry_); }

void DCIRunLoopSource::signal() {
    // The hot path of every event post: one exchange, and a write only for the first signal
    // since the callback last ran.
    if (!entry_->signalled.exchange(true, std::memory_order_acq_rel)) entry_->loop->wake();
}

bool DCIIsMainThread() { return currentThread().isMain; }
