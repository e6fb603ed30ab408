#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

/// A real HTTP server on 127.0.0.1 at a port the system picks, serving the handlers the test
/// registers, stopped and joined when the object goes away.
class LoopbackHTTPServer {
public:
    /// With `certificate` and `key` (PEM files), it serves HTTPS.
    explicit LoopbackHTTPServer(const std::function<void(httplib::Server&)>& handlers, const char* certificate = nullptr,
                                const char* key = nullptr);
    ~LoopbackHTTPServer();

    /// "http://127.0.0.1:PORT" (or https) followed by `path`.
    std::string url(const std::string& path) const { return origin_ + path; }
    /// Waits, in a handler, for `duration` or until the server stops; answers whether it is
    /// still running, so that a slow handler never holds up the end of a test.
    bool pause(std::chrono::milliseconds duration);

private:
    const std::unique_ptr<httplib::Server> server_;
    std::string origin_;
    std::mutex mutex_;  // also keeps the server from being copied
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::jthread thread_;  // last, so that it is joined before the rest goes
};
