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

// Its period divides the server's 1,000-byte chunks, so that chunks in a row make a longer pattern.
std::string pattern(size_t size) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes += static_cast<char>('a' + i % 25);
    return bytes;
}

bool hasEnded(const std::shared_ptr<DCIAction>& action) {
    return action->status() >= DCIActionStatusPaused && action->status() <= DCIActionStatusCompleted;
}

uint64_t downloadedSize(const std::shared_ptr<DCIAction>& action) {
    return action->contextObjectForKey(kDCIDownloaderCurrentDownloadSizeKey)->uint64Value().value_or(0);
}

class DCIDownloaderTest : public ::testing::Test {
protected:
    void SetUp() override { DCIEventManager::addListener(recorder); }

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

    std::shared_ptr<DCIAction> dataDownload(const std::string& path) {
        return DCIDownloader::dataDownloadActionWithRequest(DCIURLRequest::requestWithURL(server.url(path)));
    }

    /// Queues the action and pumps the main loop until the worker has ended it and let it go.
    void run(const std::shared_ptr<DCIAction>& action) {
        queue->addAction(action);
        EXPECT_TRUE(pumpMainLoopUntil([&] { return hasEnded(action) && worker->currentAction() != action; }));
    }

    // /reply?status=&size=[&etag=][&cut=] answers `size` bytes; /go?to= redirects there;
    // /slow?chunks=[&gap=] sends a 1,000-byte chunk every `gap` ms (20 unless given); /pair
    // answers "together" once two requests are in at once.
    LoopbackHTTPServer server{[this](httplib::Server& http) {
        const auto reply = [](const httplib::Request& request, httplib::Response& response) {
            response.status = std::stoi(request.get_param_value("status"));
            if (request.has_param("etag")) response.set_header("ETag", request.get_param_value("etag"));
            const size_t size = std::stoul(request.get_param_value("size"));
            if (!request.has_param("cut")) return response.set_content(pattern(size), "application/octet-stream");
            // States the whole size, sends the first `cut` bytes and hangs up.
            const size_t cut = std::stoul(request.get_param_value("cut"));
            response.set_content_provider(size, "application/octet-stream", [cut](size_t offset, size_t, auto& sink) {
                return offset == 0 && sink.write(pattern(cut).data(), cut);
            });
        };
        http.Get("/reply", reply);
        http.Post("/reply", reply);
        http.Get("/go", [](const httplib::Request& request, httplib::Response& response) {
            response.set_redirect(request.get_param_value("to"));
        });
        http.Get("/slow", [this](const httplib::Request& request, httplib::Response& response) {
            const size_t end = std::stoul(request.get_param_value("chunks")) * 1000;
            const std::chrono::milliseconds gap(request.has_param("gap") ? std::stoi(request.get_param_value("gap")) : 20);
            response.set_chunked_content_provider("application/octet-stream", [this, end, gap](size_t offset, auto& sink) {
                if (offset < end && server.pause(gap)) return sink.write(pattern(1000).data(), 1000);
                sink.done();
                return true;
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
    std::shared_ptr<DCIDownloader> worker = DCIDownloader::initWithQueue(queue);
};

struct Outcome {
    const char* name;
    const char* path;         // on the server; nullptr: an action without a request
    const char* destination;  // in the folder, or absolute; nullptr: a data download
    int64_t status;
    std::optional<int64_t> statusCode;
    std::optional<std::string> body;  // the file's contents, or the data handed over
    uint64_t currentSize, totalSize;
    std::optional<DCIError> error = {};  // an empty description is not compared
    std::optional<std::string> etag = {};
    size_t uploadSize = 0;
    double timeout = 60;
};

TEST_F(DCIDownloaderTest, EndsEachActionAsItsResponseDecides) {
    constexpr int64_t done = DCIActionStatusCompleted, failed = DCIActionStatusFailed;
    const auto urlError = [](int64_t code) { return DCIError(kDCIURLErrorDomain, code, ""); };
    const auto posixError = [](int64_t code) { return DCIError(kDCIPOSIXErrorDomain, code, ""); };
    const Outcome outcomes[] = {
        {"200 into memory, quoted 32-character tag",
         "/reply?status=200&size=1000&etag=%220123456789abcdef0123456789abcdef%22", nullptr, done, 200, pattern(1000),
         1000, 1000, {}, "0123456789abcdef0123456789abcdef"},
        {"200 into a file, short tag kept whole", "/reply?status=200&size=1000&etag=%22abc%22", "out", done, 200,
         pattern(1000), 1000, 1000, {}, "\"abc\""},
        {"204", "/reply?status=204&size=0", nullptr, done, 204, "", 0, 0},
        {"409, multipart tag ignored", "/reply?status=409&size=20&etag=%220123456789abcdef0123456789abcd-2%22", nullptr,
         done, 409, pattern(20), 20, 20},
        {"404 is an answer, no failure", "/reply?status=404&size=50", nullptr, done, 404, std::nullopt, 0, 0},
        {"403", "/reply?status=403&size=50", nullptr, failed, 403, std::nullopt, 0, 0,
         DCIError("Kestly", 2, "Error: the server failed with error code 403")},
        {"redirect followed", "/go?to=%2Freply%3Fstatus%3D200%26size%3D10", nullptr, done, 200, pattern(10), 10, 10},
        {"redirect off the web", "/go?to=file%3A%2F%2F%2Fetc%2Fpasswd", "out", failed, std::nullopt, "", 0, 0,
         urlError(DCIURLErrorUnsupportedURL)},
        {"upload counts both ways", "/reply?status=200&size=200", nullptr, done, 200, pattern(200), 5200, 5200, {}, {},
         5000},
        {"connection dropped mid-body", "/reply?status=200&size=10000&cut=4000", "out", failed, 200, pattern(4000), 0, 10000,
         urlError(DCIURLErrorNetworkConnectionLost)},
        {"a failed write fails the action alone", "/reply?status=200&size=1000", "/dev/full", failed, 200, std::nullopt,
         0, 1000, posixError(ENOSPC)},
        {"time-out", "/slow?chunks=1&gap=3000", nullptr, failed, 200, std::nullopt, 0, 0, urlError(DCIURLErrorTimedOut),
         {}, 0, 1},
        {"missing folder", "/reply?status=200&size=10", "missing/out", failed, std::nullopt, std::nullopt, 0, 0,
         posixError(ENOENT)},
        {"no request", nullptr, nullptr, failed, std::nullopt, std::nullopt, 0, 0, DCIError("Kestly", 1, "")},
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
        const std::string destination = !outcome.destination            ? ""
                                        : outcome.destination[0] == '/' ? outcome.destination
                                                                        : folder / outcome.destination;
        const auto action = outcome.destination ? DCIDownloader::fileDownloadActionWithRequest(request, destination)
                                                : DCIDownloader::dataDownloadActionWithRequest(request);
        run(action);

        const auto value = [&](std::string_view key) { return action->contextObjectForKey(key); };
        EXPECT_EQ(action->status(), outcome.status);
        const auto statusCode = value(kDCIDownloaderResponseStatusCodeKey);
        EXPECT_EQ(statusCode ? statusCode->int64Value() : std::nullopt, outcome.statusCode);
        EXPECT_EQ(downloadedSize(action), outcome.currentSize);
        EXPECT_EQ(value(kDCIDownloaderTotalDownloadSizeKey)->uint64Value(), outcome.totalSize);
        const auto etag = value(kDCIDownloaderEtag);
        EXPECT_EQ(etag ? std::optional(etag->description()) : std::nullopt, outcome.etag);

        const auto data = value(kDCIDownloaderDataKey);
        EXPECT_EQ(data.has_value(), !outcome.destination && outcome.body);
        if (outcome.body) {
            EXPECT_EQ(data ? std::string(data->data()->stringView()) : readWholeFile(destination), *outcome.body);
        }

        const auto errorValue = value(kDCIError);
        std::optional<DCIError> error;
        if (errorValue && errorValue->error()) error = *errorValue->error();
        if (error && outcome.error && outcome.error->localizedDescription().empty()) {
            error = DCIError(error->domain(), error->code(), "");
        }
        EXPECT_EQ(error, outcome.error) << (error ? error->description() : "no error");
    }
}

TEST_F(DCIDownloaderTest, HostStopsARunningDownloadAtItsNextChunkAndTheWorkerGoesOn) {
    for (const int64_t stop : {DCIActionStatusCanceled, DCIActionStatusPaused}) {
        SCOPED_TRACE(stop);
        const std::string destination = folder / "slow";
        const auto action = DCIDownloader::fileDownloadActionWithRequest(
            DCIURLRequest::requestWithURL(server.url("/slow?chunks=200")), destination);
        queue->addAction(action);
        ASSERT_TRUE(pumpMainLoopUntil([&] { return downloadedSize(action) > 0; }));
        action->changeStatus(stop);
        const auto next = dataDownload("/reply?status=200&size=10");
        run(next);

        EXPECT_EQ(next->status(), DCIActionStatusCompleted);
        EXPECT_EQ(action->status(), stop);
        const std::string kept = readWholeFile(destination);
        EXPECT_TRUE(kept.size() > 0 && kept.size() < 200'000) << kept.size();
        EXPECT_EQ(kept, pattern(kept.size()));  // the start of what the server sent
    }
}

TEST_F(DCIDownloaderTest, WorkersSharingAQueueRunTheirActionsAtOnce) {
    const auto second = DCIDownloader::initWithQueue(queue);
    const auto first = dataDownload("/pair"), other = dataDownload("/pair");
    queue->addAction(first);
    queue->addAction(other);
    EXPECT_TRUE(pumpMainLoopUntil([&] { return hasEnded(first) && hasEnded(other); }, 10s));
    for (const auto& action : {first, other}) {
        EXPECT_EQ(action->contextObjectForKey(kDCIDownloaderDataKey)->data()->stringView(), "together");
    }
    second->close();
    EXPECT_TRUE(pumpMainLoopUntil([&] { return stopped(second); }));
}

TEST_F(DCIDownloaderTest, CloseLetsTheCurrentActionFinishAndLeavesTheQueuedOnes) {
    const auto running = dataDownload("/slow?chunks=10");
    queue->addAction(running);
    ASSERT_TRUE(pumpMainLoopUntil([&] { return running->status() == DCIActionStatusRunning; }));
    const auto waiting = dataDownload("/reply?status=200&size=10");
    queue->addAction(waiting);
    worker->close();

    ASSERT_TRUE(pumpMainLoopUntil([&] { return stopped(worker); }));
    EXPECT_EQ(running->status(), DCIActionStatusCompleted);
    EXPECT_EQ(running->contextObjectForKey(kDCIDownloaderDataKey)->data()->stringView(), pattern(10'000));
    EXPECT_EQ(downloadedSize(running), 10'000u);  // also when no length was stated
    EXPECT_LT(eventIndex(12, worker), eventIndex(13, worker));
    EXPECT_EQ(queue->queue(), std::vector{waiting});
}

}  // namespace
