// A host in twenty lines: a listener on the main thread, events posted from a worker.
#include <CoreKestly/CoreKestly.h>

#include <cstdio>
#include <thread>

class PrintingListener : public DCIEventListener {
public:
    void handleEvent(const std::shared_ptr<DCIEvent>& event) override {
        std::printf("event %lu on the main thread: %s\n", static_cast<unsigned long>(event->type()),
                    DCIIsMainThread() ? "yes" : "no");
        if (++received_ == 3) DCIRunLoop::main().stop();
    }

private:
    int received_ = 0;
};

int main() {
    auto listener = std::make_shared<PrintingListener>();
    DCIEventManager::addListener(listener);
    std::thread worker([] {
        for (uint64_t type = 1; type <= 3; ++type) DCIEventManager::postEvent(DCIEvent::initWithCategory(7, type));
    });
    DCIRunLoop::main().run();  // returns when the listener calls stop()
    worker.join();
    DCIEventManager::removeListener(listener);
}
