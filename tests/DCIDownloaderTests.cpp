#include "CoreKestly/Downloads/DCIDownloader.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "support/EventRecorder.h"
#include "support/LogReading.h"
#include "support/LoopbackHTTPServer.h"
#include "support/Testing.h"

namespace {

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
    void TearDown() override {
        worker->close();
        EXPECT_TRUE(pumpMainLoopUntil([&] { return stopped(worker); }));
        worker->waitUntilStopped();
    }

    bool stopped(const std::shared_ptr<DCIDownloader>& downloader) const {
        return std::ranges::any_of(recorder->events, [&](const auto& event) {
            const auto value = event->contextValue(kDCIDownloaderDownloaderKey);
            return event->isCommonEventOfType(DCIEventTypeDownloaderStopped) && value && value->object() == downloader;
        });
    }

    std::shared_ptr<DCIAction> dataDownload(const std::string& path) {
        return DCIDownloader::dataDownloadActionWithRequest(DCIURLRequest::requestWithURL(server.url(path)));
    }

    /// What the host heard of the action, in order: each status it took, and "+" for a run of
    /// progress events, such as "23+7".
    std::string heard(const std::shared_ptr<DCIAction>& action) const {
        std::string text;
        for (const auto& event : recorder->events) {
            const auto status = event->contextValue(kDCIActionStatusKey);
            if (event->action() == action && (status || !text.ends_with('+'))) text += status ? status->description() : "+";
        }
        return text;
    }

    /// Queues the action and pumps the main loop until the worker has ended it and let it go.
    void run(const std::shared_ptr<DCIAction>& action) {
        queue->addAction(action);
        EXPECT_TRUE(pumpMainLoopUntil([&] { return hasEnded(action) && worker->currentAction() != action; }));
    }

    // Fields ahead of all others, `pad` KiB of them, named so that the server sends them first.
    static void pad(const httplib::Request& request, httplib::Response& response) {
        for (int i = 0; request.has_param("pad") && i < std::stoi(request.get_param_value("pad")); ++i)
            response.set_header("A-Pad-" + std::to_string(i), std::string(1000, 'p'));
    }

    // /reply?status=&size=[&etag=][&cut=][&pad=] answers `size` bytes; /go?to=[&pad=] redirects there;
    // /slow?chunks=&gap=[&quick=] sends a 1,000-byte chunk every `gap` ms, the first `quick` at once.
    LoopbackHTTPServer server{[this](httplib::Server& http) {
        const auto reply = [](const httplib::Request& request, httplib::Response& response) {
            response.status = std::stoi(request.get_param_value("status"));
            pad(request, response);
            if (request.has_param("etag")) response.set_header("ETag", request.get_param_value("etag"));
            const size_t size = std::stoul(request.get_param_value("size"));
            if (!request.has_param("cut")) return response.set_content(pattern(size), "application/octet-stream");
            // States the whole size, sends the first `cut` bytes and hangs up.
            const size_t cut = std::stoul(request.get_param_value("cut"));
            response.set_content_provider(size, "application/octet-stream", [cut](size_t offset, size_t, auto& sink) {
                return offset == 0 && sink.write(pattern(cut).data(), cut);
            });
        };
        redirectAndEcho(http);
        http.Get("/reply", reply);
        http.Post("/reply", reply);
        http.Get("/go", [](const httplib::Request& request, httplib::Response& response) {
            pad(request, response);
            response.set_redirect(request.get_param_value("to"));
        });
        http.Get("/slow", [this](const httplib::Request& request, httplib::Response& response) {
            const size_t end = std::stoul(request.get_param_value("chunks")) * 1000;
            const size_t quick = request.has_param("quick") ? std::stoul(request.get_param_value("quick")) * 1000 : 0;
            const std::chrono::milliseconds gap(std::stoi(request.get_param_value("gap")));
            response.set_chunked_content_provider("application/octet-stream", [=, this](size_t at, auto& sink) {
                if (at < end && (at < quick || server.pause(gap))) return sink.write(pattern(1000).data(), 1000);
                sink.done();
                return true;
            });
        });
    }};

    // Another origin, another port: /to?code=&where= redirects any method there; /echo answers
    // "METHOD body Authorization-value" for any method.
    static void redirectAndEcho(httplib::Server& http) {
        const auto redirect = [](const httplib::Request& request, httplib::Response& response) {
            response.set_header("Set-Cookie", "session=secret");
            response.set_redirect(request.get_param_value("where"), std::stoi(request.get_param_value("code")));
        };
        const auto echo = [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(request.method + " " + request.body + " " + request.get_header_value("Authorization"),
                                 "text/plain");
        };
        for (const auto& [path, handler] : {std::pair("/to", +redirect), std::pair("/echo", +echo)}) {
            http.Get(path, handler).Post(path, handler).Put(path, handler).Patch(path, handler).Delete(path, handler);
        }
    }
    LoopbackHTTPServer otherOrigin{redirectAndEcho};

    TemporaryDirectory folder;
    ListeningRecorder recorder;
    std::shared_ptr<DCIActionQueue> queue = DCIActionQueue::init();
    std::shared_ptr<DCIDownloader> worker = DCIDownloader::initWithQueue(queue);
};

struct Outcome {
    std::string path;         // on the server; empty: an action without a request
    std::string destination;  // in the folder, or absolute; empty: a data download
    int64_t status;
    std::optional<int64_t> statusCode;
    std::optional<std::string> body;  // the file's contents, or the data handed over
    uint64_t currentSize, totalSize;
    std::optional<DCIError> error = {};  // an empty description is not compared
    std::optional<std::string> etag = {};
    size_t uploadSize = 0;
};

TEST_F(DCIDownloaderTest, EndsEachActionAsItsResponseDecides) {
    constexpr int64_t done = DCIActionStatusCompleted, failed = DCIActionStatusFailed;
    constexpr auto none = std::nullopt;
    const auto reply = [](int status, size_t size, const std::string& more = "") {
        return "/reply?status=" + std::to_string(status) + "&size=" + std::to_string(size) + more;
    };
    const auto urlError = [](int64_t code) { return DCIError(kDCIURLErrorDomain, code, ""); };
    const auto posixError = [](int64_t code) { return DCIError(kDCIPOSIXErrorDomain, code, ""); };
    const std::string tag32 = "0123456789abcdef0123456789abcdef";
    const Outcome outcomes[] = {
        {reply(200, 1000, "&etag=%22" + tag32 + "%22"), "", done, 200, pattern(1000), 1000, 1000, none, tag32},
        {reply(200, 1000, "&etag=%22abc%22"), "out", done, 200, pattern(1000), 1000, 1000, none, "\"abc\""},
        {reply(204, 0), "", done, 204, "", 0, 0},
        {reply(409, 20, "&etag=%22" + tag32.substr(2) + "-2%22"), "", done, 409, pattern(20), 20, 20},  // multipart tag
        {reply(404, 50), "", done, 404, none, 0, 0},  // an answer, no failure
        {reply(403, 50), "", failed, 403, none, 0, 0,
         DCIError("Kestly", 2, "Error: the server failed with error code 403")},
        {"/go?to=%2Freply%3Fstatus%3D200%26size%3D10", "", done, 200, pattern(10), 10, 10},
        {"/go?pad=70&to=%2Freply%3Fstatus%3D200%26size%3D10", "", done, 200, pattern(10), 10, 10},  // late Location
        {reply(200, 10, "&pad=70&etag=%22" + tag32 + "%22"), "", done, 200, pattern(10), 10, 10, none, tag32},
        {"/go?to=file%3A%2F%2F%2Fetc%2Fpasswd", "out", failed, none, "", 0, 0, urlError(DCIURLErrorUnsupportedURL)},
        {reply(200, 200), "", done, 200, pattern(200), 5200, 5200, none, none, 5000},  // the upload counts too
        {reply(200, 10000, "&cut=4000"), "out", failed, 200, pattern(4000), 0, 10000,
         urlError(DCIURLErrorNetworkConnectionLost)},
        {reply(200, 1000), "/dev/full", failed, 200, none, 0, 1000, posixError(ENOSPC)},  // the worker goes on
        {"/slow?chunks=1&gap=3000", "", failed, 200, none, 0, 0, urlError(DCIURLErrorTimedOut)},  // a 1 s time-out
        {"/slow?chunks=101&quick=100&gap=3000", "", failed, 200, none, 100000, 0, urlError(DCIURLErrorTimedOut)},
        {reply(200, 10), "missing/out", failed, none, none, 0, 0, posixError(ENOENT)},
        {"", "", failed, none, none, 0, 0, DCIError("Kestly", 1, "")},
    };
    const mode_t umaskOfProcess = umask(0);
    umask(umaskOfProcess);
    folder.writeFile("out", "anyone may read this");
    fs::permissions(folder / "out", fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read);
    for (const auto& outcome : outcomes) {
        SCOPED_TRACE(outcome.path + " into " + outcome.destination);
        const auto body = std::make_shared<const DCIData>(pattern(outcome.uploadSize));
        DCIURLRequestFields fields{server.url(outcome.path), outcome.uploadSize ? "POST" : "GET", {},
                                   outcome.uploadSize ? body : nullptr, {}, outcome.path.starts_with("/slow") ? 1. : 60.};
        const auto request = outcome.path.empty() ? nullptr : DCIURLRequest::requestWithFields(std::move(fields));
        const bool toFile = !outcome.destination.empty();
        const std::string destination = outcome.destination.starts_with('/') ? outcome.destination
                                                                              : folder / outcome.destination;
        const auto action = toFile ? DCIDownloader::fileDownloadActionWithRequest(request, destination)
                                   : DCIDownloader::dataDownloadActionWithRequest(request);
        run(action);

        const auto value = [&](std::string_view key) { return action->contextObjectForKey(key); };
        const auto statusCode = value(kDCIDownloaderResponseStatusCodeKey);
        const auto etag = value(kDCIDownloaderEtag);
        EXPECT_EQ(std::tuple(action->status(), statusCode ? statusCode->int64Value() : none, downloadedSize(action),
                             value(kDCIDownloaderTotalDownloadSizeKey)->uint64Value(),
                             etag ? std::optional(etag->description()) : none),
                  std::tuple(outcome.status, outcome.statusCode, outcome.currentSize, outcome.totalSize, outcome.etag));

        const auto data = value(kDCIDownloaderDataKey);
        EXPECT_EQ(data.has_value(), !toFile && outcome.body);
        struct stat file;
        if (toFile && lstat(destination.c_str(), &file) == 0 && S_ISREG(file.st_mode)) {
            EXPECT_EQ(file.st_mode & 0777, 0666 & ~umaskOfProcess);
        }
        if (outcome.body) {
            EXPECT_EQ(data ? std::string(data->data()->stringView()) : readWholeFile(destination), *outcome.body);
        }

        // Each tick tells its own counts: rising, and within the total once known.
        for (uint64_t told = 0; const auto& event : recorder->events) {
            if (!event->isCommonEventOfType(DCIEventTypeDownloadProgress) || event->action() != action) continue;
            const uint64_t current = event->contextValue(kDCIDownloaderCurrentDownloadSizeKey).value().uint64Value().value();
            const auto total = event->contextValue(kDCIDownloaderTotalDownloadSizeKey);
            EXPECT_TRUE(current > std::exchange(told, current) && (!total || total->uint64Value() >= current)) << current;
        }

        const auto errorValue = value(kDCIError);
        const DCIError* error = errorValue ? errorValue->error() : nullptr;
        const bool described = outcome.error && !outcome.error->localizedDescription().empty();
        EXPECT_EQ(error ? std::optional(DCIError(error->domain(), error->code(), described ? error->localizedDescription() : ""))
                        : std::nullopt, outcome.error) << (error ? error->description() : "no error");
    }
}

// Stopped while it runs, or before the main thread's start step, an action keeps the status
// the host gave it. The worker goes on through actions queued together, taking each as the last
// ends, and the host hears each one's steps in order.
TEST_F(DCIDownloaderTest, HostStopsADownloadAndTheWorkerGoesOn) {
    for (const auto& [stop, beforeStart] : {std::pair(DCIActionStatusCanceled, false),
                                            {DCIActionStatusPaused, false}, {DCIActionStatusCanceled, true}}) {
        SCOPED_TRACE(std::to_string(stop) + (beforeStart ? " before its start" : ""));
        const std::string destination = folder / "slow";
        const auto action = DCIDownloader::fileDownloadActionWithRequest(
            DCIURLRequest::requestWithURL(server.url("/slow?chunks=200&gap=20")), destination);
        queue->addAction(action);
        // Before its start step: the main loop, where that step runs, does not run meanwhile.
        for (int tries = 0; beforeStart && worker->currentAction() != action && tries < 5000; ++tries) std::this_thread::sleep_for(1ms);
        ASSERT_TRUE(beforeStart || pumpMainLoopUntil([&] { return downloadedSize(action) > 0; }));
        action->changeStatus(stop);
        std::vector<std::shared_ptr<DCIAction>> next(6);
        for (auto& each : next) queue->addAction(each = dataDownload("/reply?status=200&size=1000"));
        std::this_thread::sleep_for(200ms);  // without the main loop: the worker gets bodies before their start steps
        ASSERT_TRUE(pumpMainLoopUntil([&] { return std::ranges::all_of(next, hasEnded); }));

        EXPECT_TRUE(action->status() == stop && (beforeStart ? heard(action) == "25" : heard(action).starts_with("23+")));
        for (const auto& each : next) EXPECT_EQ(heard(each), "23+7");
        const std::string kept = readWholeFile(destination);
        EXPECT_TRUE(kept.size() < 200'000 && (beforeStart || !kept.empty())) << kept.size();
        EXPECT_EQ(kept, pattern(kept.size()));  // the start of what the server sent
    }
}

// A redirect sends the method and body again only where HTTP means it to, and never an unsafe
// method, a body or credentials to another origin.
TEST_F(DCIDownloaderTest, RedirectsCarryMethodBodyAndCredentialsOnlyWhereHTTPAllows) {
    const std::string here = server.url("/echo"), there = otherOrigin.url("/echo");
    const struct { const char* method; int code; std::string target; std::string answer; } redirects[] = {
        {"DELETE", 303, here, "GET  secret"},  {"PUT", 303, here, "GET  secret"},
        {"POST", 302, here, "GET  secret"},    {"POST", 301, here, "GET  secret"},
        {"PUT", 307, here, "PUT abc secret"},  {"PATCH", 308, here, "PATCH abc secret"},
        {"DELETE", 302, here, "DELETE abc secret"},
        {"POST", 303, there, "GET  "},         {"GET", 307, there, "GET  "},
        {"DELETE", 302, there, "302"},         {"PUT", 308, there, "308"},  {"POST", 307, there, "307"},  // refused
    };
    for (const auto& [method, code, target, answer] : redirects) {
        SCOPED_TRACE(std::string(method) + " " + std::to_string(code) + " " + target);
        const auto body = std::string_view(method) == "GET" ? nullptr : std::make_shared<const DCIData>(std::string("abc"));
        const auto action = DCIDownloader::dataDownloadActionWithRequest(DCIURLRequest::requestWithFields(
            {server.url("/to?code=" + std::to_string(code) + "&where=" + httplib::detail::encode_query_param(target)),
             method, {{"Authorization", "secret"}}, body, {}}));
        run(action);
        const auto data = action->contextObjectForKey(kDCIDownloaderDataKey);
        const auto error = action->contextObjectForKey(kDCIError);
        const auto statusCode = action->contextObjectForKey(kDCIDownloaderResponseStatusCodeKey);
        // A redirect not followed is the response, Failed with its code and the reason.
        const bool refused = error && statusCode && error->description().find("another origin") != std::string::npos;
        EXPECT_EQ(data ? std::string(data->data()->stringView()) : refused ? statusCode->description() : "?", answer);
    }
}

// The destination is opened without blocking; a reader that falls behind slows the body down.
TEST_F(DCIDownloaderTest, AFIFOWithASlowReaderGetsTheWholeBody) {
    const std::string fifo = folder / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int reading = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);  // so that the worker's open finds a reader
    std::string received;
    std::jthread reader([&] {
        std::this_thread::sleep_for(300ms);  // the pipe fills meanwhile
        fcntl(reading, F_SETFL, 0);
        char buffer[4096];
        for (ssize_t count; (count = read(reading, buffer, sizeof buffer)) > 0;) received.append(buffer, size_t(count));
        close(reading);
    });
    const auto action = DCIDownloader::fileDownloadActionWithRequest(
        DCIURLRequest::requestWithURL(server.url("/reply?status=200&size=300000")), fifo);
    run(action);
    reader.join();
    EXPECT_EQ(std::tuple(action->status(), received), std::tuple(DCIActionStatusCompleted, pattern(300'000)));
}

// A URL that would forge a log entry, or make a line of 100 KB, is logged as one short line;
// no line shows the user and password of a URL or a cookie.
TEST_F(DCIDownloaderTest, LogsAURLAsOneShortLineWithoutSecrets) {
    const LogSince log;
    const auto action = dataDownload("/reply?status=200&size=1&a=\n2026-01-01 00:00:00: forged" + std::string(100'000, 'a'));
    run(action);
    const std::string elsewhere = "http://ann:secret@" + otherOrigin.url("/echo").substr(7);
    DCIURLRequestFields fields{"http://ann:secret@" + server.url("/to?code=302&where=").substr(7) +
                               httplib::detail::encode_query_param(elsewhere), "DELETE", {{"Cookie", "secret"}}, {}, {}};
    const auto secret = DCIDownloader::dataDownloadActionWithRequest(DCIURLRequest::requestWithFields(fields));
    run(secret);  // a redirect not followed: its head is logged
    EXPECT_EQ(std::tuple(action->status(), secret->status()), std::tuple(DCIActionStatusFailed, DCIActionStatusFailed));
    EXPECT_EQ(log.text().find("\n2026-01-01"), std::string::npos) << log.text();
    EXPECT_LT(log.text().size(), 10'000u);
    const std::string shown = log.text() + secret->contextObjectForKey(kDCIError)->description();
    EXPECT_TRUE(shown.find("ann:secret") == std::string::npos && shown.find("session=secret") == std::string::npos);
}

}  // namespace
