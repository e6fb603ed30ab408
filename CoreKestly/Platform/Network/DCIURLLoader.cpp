#include "CoreKestly/Platform/Network/DCIURLConnectionInternal.h"

#include <sys/epoll.h>

#include <chrono>

using Transfer = DCIURLConnection::Transfer;

namespace {
// As many as one loop's transfers usually overlap; more are cleaned up.
constexpr size_t kMaximumIdleHandles = 4;
}  // namespace

std::shared_ptr<DCIURLLoader> DCIURLLoader::current() {
    // Made after the thread's run loop, so released before it when the thread ends.
    thread_local std::shared_ptr<DCIURLLoader> loader(new DCIURLLoader());
    return loader;
}

DCIURLLoader::DCIURLLoader()
    : loop_(DCIRunLoop::current()),
      ownerThread_(std::this_thread::get_id()),
      multi_(DCIURLConnection::prepareLoading() ? curl_multi_init() : nullptr) {
    if (multi_) {
        curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, socketCallback);
        curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, timerCallback);
        curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    }
    scheduledSource_ = loop_.addSignalSource([this] { runScheduled(); });
    timeoutNow_ = loop_.addSignalSource([this] { drive(CURL_SOCKET_TIMEOUT, 0); });
}

DCIURLLoader::~DCIURLLoader() {
    scheduledSource_.reset();
    timeoutNow_.reset();
    idleTimer_.reset();
    timer_.reset();
    if (!multi_) return;
    // The loop may be gone already: libcurl must not ask for sockets or timers any more.
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, nullptr);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, nullptr);
    for (const auto& [easy, transfer] : transfers_) curl_multi_remove_handle(multi_, easy);
    transfers_.clear();
    for (CURL* easy : idleHandles_) curl_easy_cleanup(easy);
    sockets_.clear();
    curl_multi_cleanup(multi_);
}

CURL* DCIURLLoader::takeEasyHandle() {
    if (idleHandles_.empty()) return curl_easy_init();
    CURL* const easy = idleHandles_.back();
    idleHandles_.pop_back();
    return easy;
}

void DCIURLLoader::recycle(CURL* easy) {
    if (idleHandles_.size() == kMaximumIdleHandles) {
        curl_easy_cleanup(easy);
        return;
    }
    curl_easy_reset(easy);
    idleHandles_.push_back(easy);
}

void DCIURLLoader::schedule(const std::shared_ptr<Transfer>& transfer) {
    // Started on the loop's own thread, outside libcurl, a transfer that can load joins the
    // multi handle at once, sparing a pass of the loop; joining tells the delegate nothing.
    if (isCurrent() && insideCurl_ == 0 && !transfer->canceled && !transfer->setupError &&
        !transfers_.contains(transfer->easy) && !attach(transfer)) {
        return;
    }
    {
        std::lock_guard lock(scheduledMutex_);
        scheduled_.push_back(transfer);
    }
    scheduledSource_->signal();
}

void DCIURLLoader::runScheduled() {
    std::vector<std::shared_ptr<Transfer>> scheduled;
    {
        std::lock_guard lock(scheduledMutex_);
        scheduled.swap(scheduled_);
    }
    for (const auto& transfer : scheduled) {
        if (transfer->canceled) {
            remove(*transfer);
        } else if (!transfers_.contains(transfer->easy)) {
            add(transfer);
        }
    }
}

void DCIURLLoader::add(const std::shared_ptr<Transfer>& transfer) {
    if (const auto refusal = attach(transfer)) transfer->tellEnd(refusal);
}

std::optional<DCIError> DCIURLLoader::attach(const std::shared_ptr<Transfer>& transfer) {
    if (transfer->setupError) return transfer->setupError;
    if (!multi_ || curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
        return DCIError(kDCIURLErrorDomain, DCIURLErrorUnknown, "libcurl refused the transfer");
    }
    // libcurl asks for a timer of 0 ms at once: the transfer begins on the loop's next pass.
    transfers_.emplace(transfer->easy, transfer);
    watchIdleness(transfer);
    return std::nullopt;
}

void DCIURLLoader::watchIdleness(const std::shared_ptr<Transfer>& transfer) {
    // Looked at four times per time-out, and at least every quarter second, so a stall ends
    // within a quarter of the time-out, and never more than 0.25 s, past it. One timer serves
    // every transfer of the loop, and stays while transfers follow each other.
    const auto interval = std::min<DCIRunLoop::Clock::duration>(transfer->idleLimit / 4, std::chrono::milliseconds(250));
    transfer->noteActivity();
    if (idleTimer_ && interval >= idleInterval_) return;
    idleInterval_ = interval;
    idleTimer_ = loop_.addTimer(interval, true, [this] { endIdleTransfers(); });
}

void DCIURLLoader::endIdleTransfers() {
    if (transfers_.empty()) {
        idleTimer_.reset();  // last: this is the timer's own callback
        return;
    }
    const auto now = DCIRunLoop::Clock::now();
    std::vector<std::shared_ptr<Transfer>> idle;
    for (const auto& [easy, transfer] : transfers_) {
        if (!transfer->canceled && now - transfer->lastActivity >= transfer->idleLimit) idle.push_back(transfer);
    }
    for (const auto& transfer : idle) {
        detach(transfer->easy);
        transfer->tellEnd(DCIError(kDCIURLErrorDomain, DCIURLErrorTimedOut, "no byte moved within the time-out"));
    }
}

void DCIURLLoader::remove(Transfer& transfer) {
    if (insideCurl_ > 0 || !transfers_.contains(transfer.easy)) return;  // swept once libcurl returns
    detach(transfer.easy);
}

void DCIURLLoader::detach(CURL* easy) {
    curl_multi_remove_handle(multi_, easy);
    // The transfer may be the last thing holding its connection; it goes after the erase.
    const auto transfer = transfers_.extract(easy);
}

int DCIURLLoader::socketCallback(CURL*, curl_socket_t socket, int what, void* userData, void*) {
    auto& loader = *static_cast<DCIURLLoader*>(userData);
    // Removed, not kept for the next request on the connection: libcurl closes some sockets
    // (its resolver's) without telling, and a number reused would find the old registration.
    if (what == CURL_POLL_REMOVE) {
        loader.sockets_.erase(socket);
        return 0;
    }
    const uint32_t events = ((what & CURL_POLL_IN) ? EPOLLIN : 0u) | ((what & CURL_POLL_OUT) ? EPOLLOUT : 0u);
    if (const auto found = loader.sockets_.find(socket); found != loader.sockets_.end()) {
        loader.loop_.modifyFileDescriptorSource(*found->second, events);
        return 0;
    }
    auto source = loader.loop_.addFileDescriptorSource(socket, events, [&loader, socket](uint32_t occurred) {
        int mask = 0;
        if (occurred & (EPOLLIN | EPOLLHUP | EPOLLRDHUP)) mask |= CURL_CSELECT_IN;
        if (occurred & EPOLLOUT) mask |= CURL_CSELECT_OUT;
        if (occurred & EPOLLERR) mask |= CURL_CSELECT_ERR;
        loader.drive(socket, mask);
    });
    if (!source) return -1;
    loader.sockets_.emplace(socket, std::move(source));
    return 0;
}

int DCIURLLoader::timerCallback(CURLM*, long milliseconds, void* userData) {
    auto& loader = *static_cast<DCIURLLoader*>(userData);
    if (milliseconds <= 0) {
        loader.timer_.reset();
        // At once: a signal costs the loop less than arming its timer, and libcurl asks for
        // this several times per transfer.
        if (milliseconds == 0) loader.timeoutNow_->signal();
    } else {
        loader.timer_ = loader.loop_.addTimer(std::chrono::milliseconds(milliseconds), false,
                                              [&loader] { loader.drive(CURL_SOCKET_TIMEOUT, 0); });
    }
    return 0;
}

void DCIURLLoader::drive(curl_socket_t socket, int events) {
    int running = 0;
    ++insideCurl_;
    curl_multi_socket_action(multi_, socket, events, &running);
    --insideCurl_;
    sweepCancelledTransfers();
    endFinishedTransfers();
}

void DCIURLLoader::sweepCancelledTransfers() {
    std::vector<CURL*> cancelled;
    for (const auto& [easy, transfer] : transfers_) {
        if (transfer->canceled) cancelled.push_back(easy);
    }
    for (CURL* easy : cancelled) detach(easy);
}

void DCIURLLoader::endFinishedTransfers() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode result = message->data.result;
        const auto found = transfers_.find(message->easy_handle);
        if (found == transfers_.end()) continue;
        // Taken out before the delegate hears of it, which may then drop the connection or
        // start another on this loop.
        const std::shared_ptr<Transfer> transfer = found->second;
        if (transfer->nextHop && !transfer->canceled) {
            follow(transfer);
            continue;
        }
        detach(transfer->easy);
        if (transfer->endingError) {
            transfer->tellEnd(transfer->endingError);
        } else if (result == CURLE_OK) {
            if (transfer->deliverResponseOnce()) transfer->tellEnd(std::nullopt);
        } else {
            transfer->tellEnd(transfer->errorForResult(result));
        }
    }
}

void DCIURLLoader::follow(const std::shared_ptr<Transfer>& transfer) {
    // Taken out and added again, the handle starts its next request on the connections the
    // multi handle keeps, so a redirect to the same server reuses its connection.
    curl_multi_remove_handle(multi_, transfer->easy);
    std::optional<DCIError> refusal = transfer->followRedirect();
    if (!refusal && curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
        refusal = DCIError(kDCIURLErrorDomain, DCIURLErrorUnknown, "libcurl refused the transfer");
    }
    if (!refusal) return;
    transfers_.erase(transfer->easy);
    transfer->tellEnd(refusal);
}
