#pragma once

#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Network/DCIURLConnection.h"
#include "CoreKestly/Platform/Network/DCIURLConnectionRedirectInternal.h"

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

class DCIURLLoader;

/// The libcurl side of one connection. The connection owns it; while it loads, its loader
/// holds it too, so a connection dropped from inside a libcurl callback leaves the easy
/// handle alive until libcurl has returned.
struct KESTLY_HIDDEN DCIURLConnection::Transfer {
    Transfer(std::shared_ptr<const DCIURLRequest> request, std::weak_ptr<DCIURLConnectionDelegate> delegate,
             std::weak_ptr<DCIURLLoader> loader);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Calls `tell(delegate, connection)` unless the connection is cancelled or gone, and
    /// answers whether it may go on afterwards. A delegate that throws ends its request, and
    /// hears of that as a failure unless it was hearing of the end already.
    template <class Tell>
    bool tellDelegate(Tell&& tell);
    /// Tells the delegate that the request ended: with `failure`, or finished without one.
    void tellEnd(const std::optional<DCIError>& failure);
    /// Hands over the response once, flushing the upload count first so that body-sent steps
    /// always come before it.
    bool deliverResponseOnce();
    bool reportUploadProgress(int64_t totalSent);
    /// The error for libcurl's `result`, or for a body that could not be read.
    DCIError errorForResult(CURLcode result) const;
    /// Judges the head just completed: a redirect to follow becomes `nextHop`, one that cannot
    /// be followed an `endingError`; the response's own head is handed over. Answers whether the
    /// transfer goes on.
    bool headEnded();
    /// Sets the easy handle up for `hop`, with the credentials in the header fields unless
    /// they were dropped on the way to another origin. Answers the error that stops it.
    std::optional<DCIError> apply(const DCIURLHop& hop);
    /// Takes `nextHop` as the request to send, its body from its start.
    std::optional<DCIError> followRedirect();
    /// A byte moved, one way or the other: the request is not idle.
    void noteActivity() { lastActivity = std::chrono::steady_clock::now(); }

    const std::shared_ptr<const DCIURLRequest> request;
    const std::weak_ptr<DCIURLConnectionDelegate> delegate;
    const std::weak_ptr<DCIURLLoader> loader;
    std::weak_ptr<DCIURLConnection> connection;
    CURL* const easy;
    curl_slist* headerList = nullptr;

    std::atomic<bool> started{false};
    std::atomic<bool> canceled{false};

    // Set up on the making thread, then used on the loop's thread only.
    std::optional<DCIError> setupError;
    int bodyFile = -1;
    int64_t bodySize = 0;
    int64_t bodyOffset = 0;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // The loop's thread only.
    /// The request's time-out of idleness, and when a byte last moved.
    std::chrono::steady_clock::duration idleLimit;
    std::chrono::steady_clock::time_point lastActivity;
    DCIURLHop hop;
    int redirectsFollowed = 0;
    /// Set when the head just received redirects there; its body is skipped.
    std::optional<DCIURLRedirect> nextHop;
    size_t skippedBodyBytes = 0;
    /// Why the redirect handed over as the response was not followed.
    std::optional<std::string> unfollowedRedirect;
    bool credentialsDropped = false;
    /// The request's end, decided by the connection rather than by libcurl.
    std::optional<DCIError> endingError;
    /// Body bytes handed over, counted after decoding.
    uint64_t bodyBytesReceived = 0;
    std::vector<std::pair<std::string, std::string>> responseHeaders;
    size_t responseHeaderBytes = 0;
    bool responseDelivered = false;
    /// The delegate has been told of the request's end, or is being told.
    bool ended = false;
    int64_t uploadReported = 0;
};

template <class Tell>
bool DCIURLConnection::Transfer::tellDelegate(Tell&& tell) {
    if (canceled) return false;
    // Held for the call, so that the delegate may drop its own references meanwhile.
    const auto owner = connection.lock();
    const auto listener = delegate.lock();
    if (!owner || !listener) {
        canceled = true;
        return false;
    }
    try {
        tell(*listener, *owner);
    } catch (...) {
        // Nothing may unwind through libcurl. The request ends here, and a delegate that did
        // not cancel it must hear so, or it would wait for its end for ever.
        if (!canceled.exchange(true) && !ended) {
            ended = true;
            try {
                listener->connection(*owner, DCIError(kDCIURLErrorDomain, DCIURLErrorUnknown,
                                                      "the request was ended by a failure in its handling"));
            } catch (...) {
                // Twice is enough: nothing more can be told to this delegate.
            }
        }
    }
    return !canceled;
}

/// The libcurl multi handle of one thread, driven by that thread's run loop through libcurl's
/// socket and timer callbacks. Its connection cache serves every connection of the thread.
class DCIURLLoader {
public:
    using Transfer = DCIURLConnection::Transfer;

    /// The calling thread's loader, made on first use and released when the thread ends.
    static std::shared_ptr<DCIURLLoader> current();
    ~DCIURLLoader();
    DCIURLLoader(const DCIURLLoader&) = delete;
    DCIURLLoader& operator=(const DCIURLLoader&) = delete;

    /// Any thread: has the transfer start, or a cancelled one leave, on the loop's thread.
    void schedule(const std::shared_ptr<Transfer>& transfer);
    /// The loop's thread: takes a cancelled transfer out now, or once libcurl has returned.
    void remove(Transfer& transfer);
    bool isCurrent() const { return std::this_thread::get_id() == ownerThread_; }

    /// The loop's thread: an easy handle for a new transfer, one that an ended transfer left
    /// if there is one. Reused, a handle keeps its buffers, so a transfer of a small body
    /// costs no allocation of libcurl's 256 KiB buffer and no setup of the handle.
    CURL* takeEasyHandle();
    /// The loop's thread: takes back the handle of a transfer that let go of it, its options
    /// reset.
    void recycle(CURL* easy);

    /// Stops watching a socket libcurl is about to close.
    void forgetSocket(curl_socket_t socket) { sockets_.erase(socket); }

private:
    DCIURLLoader();

    static int socketCallback(CURL* easy, curl_socket_t socket, int what, void* loader, void* socketData);
    static int timerCallback(CURLM* multi, long milliseconds, void* loader);

    void runScheduled();
    /// Joins the transfer to the multi handle, or tells its delegate why it cannot load.
    void add(const std::shared_ptr<Transfer>& transfer);
    /// Joins the transfer to the multi handle; answers why it cannot, telling no one.
    std::optional<DCIError> attach(const std::shared_ptr<Transfer>& transfer);
    /// Lets libcurl work on `socket` (or its timeouts), then ends finished and cancelled
    /// transfers.
    void drive(curl_socket_t socket, int events);
    void endFinishedTransfers();
    /// Ends the transfer as timed out once no byte has moved for its time-out.
    void watchIdleness(const std::shared_ptr<Transfer>& transfer);
    void endIdleTransfers();
    /// Sends the transfer's next request after the redirect it received.
    void follow(const std::shared_ptr<Transfer>& transfer);
    void sweepCancelledTransfers();
    void detach(CURL* easy);

    /// Used on the owner thread only: another thread may hold the loader past that thread's end.
    DCIRunLoop& loop_;
    const std::thread::id ownerThread_;
    CURLM* const multi_;
    std::unordered_map<curl_socket_t, std::unique_ptr<DCIRunLoopSource>> sockets_;
    std::unique_ptr<DCIRunLoopSource> timer_;
    /// libcurl's timer of 0 ms, as a signal.
    std::unique_ptr<DCIRunLoopSource> timeoutNow_;
    std::unique_ptr<DCIRunLoopSource> idleTimer_;
    DCIRunLoop::Clock::duration idleInterval_{};
    std::unordered_map<CURL*, std::shared_ptr<Transfer>> transfers_;
    std::vector<CURL*> idleHandles_;
    /// Above zero while libcurl runs, when no handle may be removed.
    int insideCurl_ = 0;

    std::mutex scheduledMutex_;
    std::vector<std::shared_ptr<Transfer>> scheduled_;
    std::unique_ptr<DCIRunLoopSource> scheduledSource_;
};
