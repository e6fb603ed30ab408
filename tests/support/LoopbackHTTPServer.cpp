#include "support/LoopbackHTTPServer.h"

LoopbackHTTPServer::LoopbackHTTPServer(const std::function<void(httplib::Server&)>& handlers, const char* certificate,
                                       const char* key)
    : server_(certificate ? std::make_unique<httplib::SSLServer>(certificate, key) : std::make_unique<httplib::Server>()) {
    handlers(*server_);
    const int port = server_->bind_to_any_port("127.0.0.1");
    origin_ = (certificate ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port);
    if (port <= 0) return;  // every request then fails to connect, and the test with it
    thread_ = std::jthread([this] { server_->listen_after_bind(); });
    while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackHTTPServer::~LoopbackHTTPServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    server_->stop();
}

bool LoopbackHTTPServer::pause(std::chrono::milliseconds duration) {
    std::unique_lock lock(mutex_);
    return !stopped_.wait_for(lock, duration, [this] { return stopping_; });
}

// The packaged server library is built without ThreadSanitizer, which then cannot follow the
// hand-overs inside its thread pool; what it reports there is no race of ours.
extern "C" const char* __tsan_default_suppressions();  // the sanitizer's hook, called by name
extern "C" const char* __tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }
