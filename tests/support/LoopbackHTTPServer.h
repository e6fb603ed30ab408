#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

/// A real HTTP server on 127.0.0.1 at a port the system picks, serving the handlers the test
/// registers, stopped and joined when the object goes away.
class LoopbackHTTPServer {
public:
    explicit LoopbackHTTPServer(const std::function<void(httplib::Server&)>& handlers);
    ~LoopbackHTTPServer();

    /// "http://127.0.0.1:PORT" followed by `path`.
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    /// Waits, in a handler, for `duration` or until the server stops; answers whether it is
    /// still running, so that a slow handler never holds up the end of a test.
    bool pause(std::chrono::milliseconds duration);

private:
    httplib::Server server_;
    int port_ = 0;
    std::mutex mutex_;  // also keeps the server from being copied
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::jthread thread_;  // last, so that it is joined before the rest goes
};
