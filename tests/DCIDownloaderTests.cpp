#include "CoreKestly/Downloads/DCIDownloader.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "support/EventRecorder.h"
#include "support/LoopbackHTTPServer.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

namespace {

using namespace std::chrono_literals;

std::string pattern(size_t size) {
    std::string bytes(size, 'a');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

bool hasEnded(const std::shared_ptr<DCIAction>& action) {
    return action->status() >= DCIActionStatusPaused && action->status() <= DCIActionStatusCompleted;
}

std::optional<DCIValue> contextValue(const std::shared_ptr<DCIAction>& action, std::string_view key) {
    return action->contextObjectForKey(key);
}

class DCIDownloaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        DCIEventManager::addListener(recorder);
        worker = DCIDownloader::initWithQueue(queue);
        ASSERT_TRUE(worker);
    }

    void TearDown() override {
        worker->close();
        EXPECT_TRUE(pumpMainLoopUntil([&] { return stopped(worker); }));
        DCIEventManager::removeListener(recorder);
    }

    bool stopped(const std::shared_ptr<DCIDownloader>& downloader) const { return eventIndex(13, downloader) >= 0; }

    /// Where the recorder got event `type` of `downloader`, or -1.
    ptrdiff_t eventIndex(uint64_t type, const std::shared_ptr<DCIDownloader>& downloader) const {
        const auto& events = recorder->events;
        const auto found = std::find_if(events.begin(), events.end(), [&](const auto& event) {
            const auto value = event->contextValue(kDCIDownloaderDownloaderKey);
            return event->isCommonEventOfType(type) && value && value->object() == downloader;
        });
        return found == events.end() ? -1 : found - events.begin();
    }

    std::shared_ptr<DCIURLRequest> get(const std::string& path) {
        return DCIURLRequest::requestWithURL(server.url(path));
    }

    /// Queues the action and pumps the main loop until the worker has ended it and let it go.
    void run(const std::shared_ptr<DCIAction>& action) {
        queue->addAction(action);
        EXPECT_TRUE(pumpMainLoopUntil([&] { return hasEnded(action) && worker->currentAction() != action; }));
    }

    // /reply?status=&size=[&etag=] answers `size` bytes; /drop hangs up after 4,000 of 10,000;
    // /stall answers after 3 s; /head sends a 500 head, then nothing for 3 s; /slow?chunks=
    // sends 1,000 bytes every 20 ms; /pair answers "together" once two requests are in at once.
    LoopbackHTTPServer server{[this](httplib::Server& http, LoopbackHTTPServer& self) {
        const auto reply = [](const httplib::Request& request, httplib::Response& response) {
            response.status = std::stoi(request.get_param_value("status"));
            if (request.has_param("etag")) response.set_header("ETag", request.get_param_value("etag"));
            response.set_content(pattern(std::stoul(request.get_param_value("size"))), "application/octet-stream");
        };
        http.Get("/reply", reply);
        http.Post("/reply", reply);
        http.Get("/drop", [](const httplib::Request&, httplib::Response& response) {
            response.set_content_provider(10000, "application/octet-stream",
                                          [](size_t offset, size_t, httplib::DataSink& sink) {
                                              return offset == 0 && sink.write(pattern(4000).data(), 4000);
                                          });
        });
        http.Get("/stall", [&self](const httplib::Request&, httplib::Response& response) {
            self.pause(3s);
            response.set_content("late", "text/plain");
        });
        http.Get("/head", [&self](const httplib::Request&, httplib::Response& response) {
            response.status = 500;
            response.set_chunked_content_provider("text/plain", [&self](size_t, httplib::DataSink& sink) {
                self.pause(3s);
                sink.done();
                return true;
            });
        });
        http.Get("/slow", [&self](const httplib::Request& request, httplib::Response& response) {
            const size_t chunks = std::stoul(request.get_param_value("chunks"));
            response.set_chunked_content_provider("application/octet-stream",
                                                  [&self, chunks](size_t offset, httplib::DataSink& sink) {
                                                      if (offset >= chunks * 1000 || !self.pause(20ms)) {
                                                          sink.done();
                                                          return true;
                                                      }
                                                      return sink.write(pattern(1000).data(), 1000);
                                                  });
        });
        http.Get("/pair", [this](const httplib::Request&, httplib::Response& response) {
            std::unique_lock lock(pairMutex);
            ++pairArrivals;
            pairArrived.notify_all();
            const bool together = pairArrived.wait_for(lock, 5s, [this] { return pairArrivals >= 2; });
            response.set_content(together ? "together" : "alone", "text/plain");
        });
    }};
    std::mutex pairMutex;
    std::condition_variable pairArrived;
    int pairArrivals = 0;

    TemporaryDirectory folder;
    std::shared_ptr<EventRecorder> recorder = std::make_shared<EventRecorder>();
    std::shared_ptr<DCIActionQueue> queue = DCIActionQueue::init();
    std::shared_ptr<DCIDownloader> worker;
};

struct Outcome {
    const char* name;
    const char* path;         // on the server; nullptr: an action without a request
    const char* destination;  // in the folder, or absolute; nullptr: a data download
    int64_t status;
    std::optional<int64_t> statusCode;
    std::optional<std::string> body;  // the file's contents, or the data handed over
    uint64_t currentSize, totalSize;
    std::optional<std::string> etag;
    std::optional<DCIError> error;  // an empty description is not compared
    size_t uploadSize;
    double timeout;
};

TEST_F(DCIDownloaderTest, EndsEachActionAsItsResponseDecides) {
    const std::string quoted32 = "0123456789abcdef0123456789abcdef";
    const Outcome outcomes[] = {
        {"200 into memory, quoted 32-character tag",
         "/reply?status=200&size=1000&etag=%220123456789abcdef0123456789abcdef%22", nullptr, DCIActionStatusCompleted,
         200, pattern(1000), 1000, 1000, quoted32, std::nullopt, 0, 60},
        {"200 into a file, short tag kept whole", "/reply?status=200&size=1000&etag=%22abc%22", "out",
         DCIActionStatusCompleted, 200, pattern(1000), 1000, 1000, "\"abc\"", std::nullopt, 0, 60},
        {"204", "/reply?status=204&size=0", nullptr, DCIActionStatusCompleted, 204, "", 0, 0, std::nullopt,
         std::nullopt, 0, 60},
        {"409, multipart tag ignored", "/reply?status=409&size=20&etag=%220123456789abcdef0123456789abcd-2%22", nullptr,
         DCIActionStatusCompleted, 409, pattern(20), 20, 20, std::nullopt, std::nullopt, 0, 60},
        {"404", "/reply?status=404&size=50", nullptr, DCIActionStatusCompleted, 404, std::nullopt, 0, 0, std::nullopt,
         std::nullopt, 0, 60},
        {"403", "/reply?status=403&size=50", nullptr, DCIActionStatusFailed, 403, std::nullopt, 0, 0, std::nullopt,
         DCIError("Kestly", 2, "Error: the server failed with error code 403"), 0, 60},
        {"500", "/reply?status=500&size=50", nullptr, DCIActionStatusFailed, 500, std::nullopt, 0, 0, std::nullopt,
         DCIError("Kestly", 2, "Error: the server failed with error code 500"), 0, 60},
        {"upload counts both ways", "/reply?status=200&size=200", nullptr, DCIActionStatusCompleted, 200, pattern(200),
         5200, 5200, std::nullopt, std::nullopt, 5000, 60},
        {"connection dropped mid-body", "/drop", "out", DCIActionStatusFailed, 200, pattern(4000), 0, 10000,
         std::nullopt, DCIError(kDCIURLErrorDomain, DCIURLErrorNetworkConnectionLost, ""), 0, 60},
        {"full disk", "/reply?status=200&size=1000", "/dev/full", DCIActionStatusFailed, 200, std::nullopt, 0, 1000,
         std::nullopt, DCIError(kDCIPOSIXErrorDomain, ENOSPC, ""), 0, 60},
        {"500 head, then nothing", "/head", nullptr, DCIActionStatusFailed, 500, std::nullopt, 0, 0, std::nullopt,
         DCIError("Kestly", 2, ""), 0, 1},
        {"time-out", "/stall", nullptr, DCIActionStatusFailed, std::nullopt, std::nullopt, 0, 0, std::nullopt,
         DCIError(kDCIURLErrorDomain, DCIURLErrorTimedOut, ""), 0, 1},
        {"missing folder", "/reply?status=200&size=10", "missing/out", DCIActionStatusFailed, std::nullopt,
         std::nullopt, 0, 0, std::nullopt, DCIError(kDCIPOSIXErrorDomain, ENOENT, ""), 0, 60},
        {"no request", nullptr, nullptr, DCIActionStatusFailed, std::nullopt, std::nullopt, 0, 0, std::nullopt,
         DCIError("Kestly", 1, ""), 0, 60},
    };
    for (const auto& outcome : outcomes) {
        SCOPED_TRACE(outcome.name);
        std::shared_ptr<DCIURLRequest> request;
        if (outcome.path) {
            DCIURLRequestFields fields;
            fields.URL = server.url(outcome.path);
            fields.timeoutInterval = outcome.timeout;
            if (outcome.uploadSize) {
                fields.HTTPMethod = "POST";
                fields.HTTPBody = std::make_shared<const DCIData>(pattern(outcome.uploadSize));
            }
            request = DCIURLRequest::requestWithFields(std::move(fields));
        }
        const std::string destination = !outcome.destination || outcome.destination[0] == '/'
                                            ? std::string(outcome.destination ? outcome.destination : "")
                                            : folder / outcome.destination;
        const auto action = outcome.destination ? DCIDownloader::fileDownloadActionWithRequest(request, destination)
                                                : DCIDownloader::dataDownloadActionWithRequest(request);
        run(action);

        EXPECT_EQ(action->status(), outcome.status);
        const auto statusCode = contextValue(action, kDCIDownloaderResponseStatusCodeKey);
        EXPECT_EQ(statusCode ? statusCode->int64Value() : std::nullopt, outcome.statusCode);
        EXPECT_EQ(contextValue(action, kDCIDownloaderCurrentDownloadSizeKey)->uint64Value(), outcome.currentSize);
        EXPECT_EQ(contextValue(action, kDCIDownloaderTotalDownloadSizeKey)->uint64Value(), outcome.totalSize);
        const auto etag = contextValue(action, kDCIDownloaderEtag);
        EXPECT_EQ(etag ? std::optional(etag->description()) : std::nullopt, outcome.etag);

        const auto data = contextValue(action, kDCIDownloaderDataKey);
        if (outcome.destination) {
            EXPECT_FALSE(data);
            if (outcome.body) {
                EXPECT_EQ(readWholeFile(destination), *outcome.body);
            }
        } else {
            EXPECT_EQ(data ? std::optional(std::string(data->data()->stringView())) : std::nullopt, outcome.body);
        }

        const auto errorValue = contextValue(action, kDCIError);
        const DCIError* error = errorValue ? errorValue->error() : nullptr;
        ASSERT_EQ(error != nullptr, outcome.error.has_value());
        if (error) {
            EXPECT_EQ(error->domain(), outcome.error->domain());
            EXPECT_EQ(error->code(), outcome.error->code());
            if (!outcome.error->localizedDescription().empty()) {
                EXPECT_EQ(*error, *outcome.error);
            }
        }
    }
}

TEST_F(DCIDownloaderTest, HostStopsARunningDownloadAtItsNextChunkAndTheWorkerGoesOn) {
    for (const int64_t stop : {DCIActionStatusCanceled, DCIActionStatusPaused}) {
        SCOPED_TRACE(stop);
        const std::string destination = folder / "slow";
        const auto action = DCIDownloader::fileDownloadActionWithRequest(get("/slow?chunks=200"), destination);
        queue->addAction(action);
        ASSERT_TRUE(pumpMainLoopUntil(
            [&] { return contextValue(action, kDCIDownloaderCurrentDownloadSizeKey)->uint64Value() > 0u; }));
        action->changeStatus(stop);
        const auto next = DCIDownloader::dataDownloadActionWithRequest(get("/reply?status=200&size=10"));
        run(next);

        EXPECT_EQ(next->status(), DCIActionStatusCompleted);
        EXPECT_EQ(action->status(), stop);
        const std::string kept = readWholeFile(destination);
        EXPECT_GT(kept.size(), 0u);
        EXPECT_LT(kept.size(), 200'000u);
        std::string sent;  // the chunks as the server sent them
        while (sent.size() < kept.size()) sent += pattern(1000);
        EXPECT_EQ(kept, sent.substr(0, kept.size()));
    }
}

TEST_F(DCIDownloaderTest, WorkersSharingAQueueRunTheirActionsAtOnce) {
    const auto second = DCIDownloader::initWithQueue(queue);
    const auto first = DCIDownloader::dataDownloadActionWithRequest(get("/pair"));
    const auto other = DCIDownloader::dataDownloadActionWithRequest(get("/pair"));
    queue->addAction(first);
    queue->addAction(other);
    EXPECT_TRUE(pumpMainLoopUntil([&] { return hasEnded(first) && hasEnded(other); }, 10s));
    for (const auto& action : {first, other}) {
        EXPECT_EQ(contextValue(action, kDCIDownloaderDataKey)->data()->stringView(), "together");
    }
    second->close();
    EXPECT_TRUE(pumpMainLoopUntil([&] { return stopped(second); }));
}

TEST_F(DCIDownloaderTest, CloseLetsTheCurrentActionFinishAndLeavesTheQueuedOnes) {
    const auto running = DCIDownloader::dataDownloadActionWithRequest(get("/slow?chunks=10"));
    queue->addAction(running);
    ASSERT_TRUE(pumpMainLoopUntil([&] { return running->status() == DCIActionStatusRunning; }));
    const auto waiting = DCIDownloader::dataDownloadActionWithRequest(get("/reply?status=200&size=10"));
    queue->addAction(waiting);
    worker->close();

    ASSERT_TRUE(pumpMainLoopUntil([&] { return stopped(worker); }));
    EXPECT_EQ(running->status(), DCIActionStatusCompleted);
    EXPECT_EQ(contextValue(running, kDCIDownloaderDataKey)->data()->length(), 10'000u);
    EXPECT_EQ(contextValue(running, kDCIDownloaderCurrentDownloadSizeKey)->uint64Value(), 10'000u);  // no length stated
    EXPECT_LT(eventIndex(12, worker), eventIndex(13, worker));
    EXPECT_EQ(queue->queue(), std::vector{waiting});
}

}  // namespace
