// kestly download: fetches URLs through one action queue served by several download workers,
// into files or to standard output, with a progress bar on a terminal or JSON lines.

#include "DownloadDestination.h"
#include "DownloadRequest.h"
#include "KestlyCommand.h"
#include "OrderedBodies.h"
#include "TerminalText.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Downloads/DCIDownloader.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"
#include "CoreKestly/Platform/RunLoop/DCIRunLoop.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include <nlohmann/json.hpp>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::ordered_json;

struct DownloadOptions {
    std::vector<std::string> urls;
    std::string output;
    std::string directory;
    size_t workers = 4;
    DownloadRequestOptions request;
    bool json = false;
};

// The most workers one command starts, whatever it is asked for.
constexpr size_t kMaximumWorkers = 64;
constexpr auto kBarInterval = std::chrono::milliseconds(100);
constexpr auto kJSONProgressInterval = std::chrono::milliseconds(250);

// The last component of the URL's path, as the name of the file it is saved to.
std::string fileNameOfURL(const std::string& url) {
    const auto schemeEnd = url.find("://");
    const auto pathStart = url.find('/', schemeEnd == std::string::npos ? 0 : schemeEnd + 3);
    const std::string path =
        pathStart == std::string::npos ? "" : url.substr(pathStart, url.find_first_of("?#", pathStart) - pathStart);
    const std::string name = KestlyPath::lastComponent(path);
    if (name.empty() || name == "/" || name == "." || name == "..") throw UsageError{"no file name in URL " + url};
    return name;
}

const char* statusName(int64_t status) {
    static const char* const names[] = {"Undefined", "Restarted", "Pending", "Running",
                                        "Paused",    "Canceled",  "Failed",  "Completed"};
    return status >= 0 && status <= DCIActionStatusCompleted ? names[status] : "Undefined";
}

std::string humanBytes(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    for (; bytes >= 1024 && unit + 1 < std::size(units); ++unit) bytes /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text;
}

uint64_t contextNumber(const DCIAction& action, std::string_view key) {
    const auto value = action.contextObjectForKey(key);
    return value ? value->uint64Value().value_or(0) : 0;
}

// Follows the actions on the main thread: prints each result as it ends, keeps the bar and the
// JSON progress lines, and writes data bodies to standard output in URL order.
class DownloadMonitor : public DCIEventListener {
public:
    struct Item {
        std::string url;
        /// The name the body is saved under, as given; nothing for standard output.
        std::optional<std::string> file;
        /// Where that name leads; a staged body replaces the file there only once whole, so a
        /// failed download leaves what was there as it was.
        std::optional<DownloadDestination> destination;
        /// The body's place among those for standard output.
        std::optional<size_t> body;
        /// The file the worker writes: the destination itself, a staging file or a spool.
        std::string written;
        std::shared_ptr<DCIAction> action;
        Clock::time_point started;
        Clock::time_point lastJSONProgress;
        bool ended = false;
    };

    DownloadMonitor(std::vector<Item> items, std::shared_ptr<OrderedBodies> bodies, bool json)
        : items_(std::move(items)), bodies_(std::move(bodies)), json_(json), showsBar_(showsProgressAndNotices()) {
        for (size_t i = 0; i < items_.size(); ++i) indexOf_[items_[i].action.get()] = i;
    }

    bool allEnded() const { return endedCount_ == items_.size(); }

    /// For a run that ends early: the staging and spool files made so far go.
    void removeStagingFiles() const {
        for (const auto& item : items_) {
            if (item.destination && item.destination->kind == DownloadDestination::Kind::staged)
                unlink(item.destination->staging.c_str());
        }
        bodies_->removeSpools();
    }

    bool succeeded() const { return succeeded_; }
    std::vector<std::shared_ptr<DCIAction>> actions() const {
        std::vector<std::shared_ptr<DCIAction>> all;
        for (const auto& item : items_) all.push_back(item.action);
        return all;
    }
    // Bodies for standard output are copied out as their progress comes.
    bool wantsProgress() const { return json_ || showsBar_ || items_.front().body; }

    size_t stoppedWorkers() const { return stoppedWorkers_; }

    void handleEvent(const std::shared_ptr<DCIEvent>& event) override {
        if (event->isCommonEventOfType(DCIEventTypeDownloaderStopped)) ++stoppedWorkers_;
        const auto found = event->action() ? indexOf_.find(event->action().get()) : indexOf_.end();
        if (found == indexOf_.end()) return;
        Item& item = items_[found->second];
        if (event->isCommonEventOfType(DCIEventTypeDownloadProgress)) {
            progressed(item);
        } else if (event->isCommonEventOfType(DCIEventTypeActionStatusChanged)) {
            const int64_t status = event->contextValue(kDCIActionStatusKey)->int64Value().value_or(0);
            if (status == DCIActionStatusRunning) {
                item.started = Clock::now();
                if (item.body) bodies_->started(*item.body);
            }
            if (status >= DCIActionStatusPaused && !item.ended) ended(item, status);
        }
    }

private:
    void progressed(Item& item) {
        const auto now = Clock::now();
        if (json_ && now - item.lastJSONProgress >= kJSONProgressInterval) {
            item.lastJSONProgress = now;
            print(ordered_json{{"url", item.url},
                               {"progress", contextNumber(*item.action, kDCIDownloaderCurrentDownloadSizeKey)},
                               {"total", contextNumber(*item.action, kDCIDownloaderTotalDownloadSizeKey)}});
        }
        if (showsBar_ && now - lastBar_ >= kBarInterval) drawBar(now);
        if (item.body) writeBodiesInOrder();
    }

    void ended(Item& item, int64_t status) {
        item.ended = true;
        ++endedCount_;
        const DCIAction& action = *item.action;
        const auto statusCode = action.contextObjectForKey(kDCIDownloaderResponseStatusCodeKey);
        // No response has no status code: -1.
        const int64_t code = statusCode ? statusCode->int64Value().value_or(-1) : -1;
        // Success is a 2xx; the library also completes a 404, and accepts a 409 for its service.
        bool completed = status == DCIActionStatusCompleted && code >= 200 && code <= 299;
        uint64_t bytes = 0;
        if (item.body) {
            bodies_->ended(*item.body);
            bytes = bodies_->received(*item.body);
        }
        // Only a file has a size to tell, which only the JSON line tells; a device such as
        // /dev/null as the destination has none.
        struct stat fileStatus;
        const auto& destination = item.destination;
        const bool staged = destination && destination->kind == DownloadDestination::Kind::staged;
        const bool direct = destination && destination->kind == DownloadDestination::Kind::direct;
        const std::string* written = staged ? &destination->staging : direct ? &destination->path : nullptr;
        if (json_ && written && lstat(written->c_str(), &fileStatus) == 0 && S_ISREG(fileStatus.st_mode))
            bytes = static_cast<uint64_t>(fileStatus.st_size);
        std::optional<std::string> placingError;
        if (staged) {
            const int error = completed ? putStagedFileInPlace(*destination) : 0;
            if (error != 0) placingError = "cannot put the file in place: " + std::string(std::strerror(error));
            if (!completed || error != 0) unlink(destination->staging.c_str());
            completed = completed && error == 0;
        }
        succeeded_ = succeeded_ && completed;

        if (showsBar_) clearBar();
        if (json_) {
            const auto etag = action.contextObjectForKey(kDCIDownloaderEtag);
            const auto error = action.contextObjectForKey(kDCIError);
            print(ordered_json{
                {"url", item.url},
                {"status", statusName(status)},
                {"statusCode", code >= 0 ? ordered_json(code) : ordered_json(nullptr)},
                {"file", item.file ? ordered_json(*item.file) : ordered_json(nullptr)},
                {"bytes", bytes},
                {"etag", etag && etag->string() ? ordered_json(*etag->string()) : ordered_json(nullptr)},
                {"error", placingError                ? ordered_json(*placingError)
                          : error && error->error() ? ordered_json(errorText(item, *error->error()))
                                                    : ordered_json(nullptr)},
            });
        } else {
            if (!completed) {
                const auto error = action.contextObjectForKey(kDCIError);
                std::string reason = statusName(status);
                if (code >= 0) reason = "status " + std::to_string(code);
                if (error && error->error()) reason = errorText(item, *error->error());
                if (placingError) reason = *placingError;
                // The URL comes from the command line, the error text partly from the server.
                std::fprintf(stderr, "kestly: %s: %s\n", terminalText(DCIURLWithoutCredentials(item.url)).c_str(),
                             terminalText(reason).c_str());
            }
            writeBodiesInOrder();
        }
        if (showsBar_) drawBar(Clock::now());
    }

    // The library names the file it writes: the person knows the file it stands for.
    static std::string errorText(const Item& item, const DCIError& error) {
        std::string text = error.localizedDescription();
        const std::string shown = item.body ? "standard output" : item.destination->path;
        for (size_t at; shown != item.written && (at = text.find(item.written)) != std::string::npos;)
            text.replace(at, item.written.size(), shown);
        return text;
    }

    void writeBodiesInOrder() {
        if (bodies_->pump()) return;
        // Whoever reads standard output wants no more of it: nothing left to do.
        std::fprintf(stderr, "kestly: cannot write to standard output: %s\n", std::strerror(errno));
        removeStagingFiles();
        _exit(1);
    }

    void print(const ordered_json& line) const {
        std::printf("%s\n", line.dump(-1, ' ', false, ordered_json::error_handler_t::replace).c_str());
        std::fflush(stdout);
    }

    void drawBar(Clock::time_point now) {
        clearBar();
        for (const Item& item : items_) {
            if (item.ended || item.action->status() != DCIActionStatusRunning) continue;
            const uint64_t current = contextNumber(*item.action, kDCIDownloaderCurrentDownloadSizeKey);
            const uint64_t total = contextNumber(*item.action, kDCIDownloaderTotalDownloadSizeKey);
            const double seconds = std::chrono::duration<double>(now - item.started).count();
            std::fprintf(stderr, "%-40.40s %10s / %-10s %10s/s\n",
                         terminalText(KestlyPath::lastComponent(item.url)).c_str(),
                         humanBytes(static_cast<double>(current)).c_str(),
                         total ? humanBytes(static_cast<double>(total)).c_str() : "?",
                         humanBytes(seconds > 0 ? static_cast<double>(current) / seconds : 0).c_str());
            ++barLines_;
        }
        std::fflush(stderr);
        lastBar_ = now;
    }

    void clearBar() {
        for (; barLines_ > 0; --barLines_) std::fputs("\033[A\033[K", stderr);
    }

    std::vector<Item> items_;
    const std::shared_ptr<OrderedBodies> bodies_;
    std::unordered_map<const DCIAction*, size_t> indexOf_;
    const bool json_;
    const bool showsBar_;
    size_t endedCount_ = 0;
    size_t stoppedWorkers_ = 0;
    size_t barLines_ = 0;
    Clock::time_point lastBar_;
    bool succeeded_ = true;
};

int download(const DownloadOptions& options) {
    // The library's few information lines per URL cost its log file more than a small file's
    // transfer: they are written only when the person asked to see them.
    if (!showsLibraryLines()) setenv("VERBOSE_LOGGING", "no", 0);
    // SIGINT and SIGTERM arrive through a descriptor on the main loop, in every thread made
    // from here on too.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const DCIFileDescriptor signals(signalfd(-1, &stopSignals, SFD_NONBLOCK | SFD_CLOEXEC));

    std::vector<DownloadMonitor::Item> items;
    const auto bodies = std::make_shared<OrderedBodies>(!options.json);
    try {
        if (!options.output.empty() && options.urls.size() != 1) throw UsageError{"-o names the file of a single URL"};
        if (!(options.request.timeout > 0)) throw UsageError{"--timeout must be a positive number of seconds"};
        const DCIURLRequestFields sharedFields = makeSharedRequestFields(options.request);
        std::set<std::string> files;
        for (const auto& url : options.urls) {
            std::optional<std::string> file;
            if (!options.output.empty()) file = options.output;
            if (!options.directory.empty())
                file = KestlyPath::appendingComponent(options.directory, fileNameOfURL(url));
            if (file && !files.insert(*file).second) throw UsageError{"two URLs would be saved to " + *file};
            const auto destination = file ? std::optional(downloadDestinationFor(*file)) : std::nullopt;
            const bool toStandardOutput = !destination || destination->kind == DownloadDestination::Kind::standardOutput;
            const auto request = makeRequestForURL(sharedFields, url, toStandardOutput);
            std::optional<size_t> body;
            std::string written;
            if (toStandardOutput) {
                body = items.size();
                written = spoolFileName();
                bodies->add(written);
            } else {
                written = destination->kind == DownloadDestination::Kind::staged ? destination->staging
                                                                                 : destination->path;
            }
            const auto action = DCIDownloader::fileDownloadActionWithRequest(request, written);
            // The queue hands out the smallest value first: URLs start in the order given.
            action->setPriority(items.size() + 1);
            items.push_back({url, file, destination, body, written, action, {}, {}, false});
        }
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kestly: %s\n", terminalText(error.message).c_str());
        return 2;
    }

    const auto monitor = std::make_shared<DownloadMonitor>(std::move(items), bodies, options.json);
    DCIEventManager::addListener(monitor);
    DCIDownloader::setRequiresProgressEvents(monitor->wantsProgress());
    const auto queue = DCIActionQueue::init();
    for (const auto& action : monitor->actions()) queue->addAction(action);

    std::vector<std::shared_ptr<DCIDownloader>> workers;
    const size_t count = std::clamp<size_t>(options.workers, 1, std::min(kMaximumWorkers, options.urls.size()));
    for (size_t i = 0; i < count; ++i) {
        if (auto worker = DCIDownloader::initWithQueue(queue)) workers.push_back(std::move(worker));
    }
    if (workers.empty()) {
        std::fprintf(stderr, "kestly: could not start a download worker\n");
        DCIEventManager::removeListener(monitor);
        return 1;
    }

    DCIRunLoop& mainLoop = DCIRunLoop::main();
    const auto signalSource = mainLoop.addFileDescriptorSource(signals.get(), EPOLLIN, [&](uint32_t) {
        signalfd_siginfo info;
        if (read(signals.get(), &info, sizeof info) != sizeof info) return;
        // No transfer starts after this; those under way are cut by the exit, and their
        // destinations keep what they held.
        queue->pause();
        monitor->removeStagingFiles();
        _exit(128 + static_cast<int>(info.ssi_signo));
    });
    while (!mainLoop.runUntil([&] { return monitor->allEnded(); }, std::chrono::hours(1))) {
    }
    // The workers need the main loop until they have stopped.
    for (const auto& worker : workers) worker->close();
    while (!mainLoop.runUntil([&] { return monitor->stoppedWorkers() == workers.size(); }, std::chrono::hours(1))) {
    }
    for (const auto& worker : workers) worker->waitUntilStopped();
    DCIEventManager::removeListener(monitor);
    // Every file is closed and in place and every body written: what is left is freeing the
    // actions and the library's per-thread caches, which took longer than a few small files'
    // transfers. A spool whose transfer never started is the one file to remove first; the
    // library's log still gets what it has queued.
    bodies->removeSpools();
    std::fflush(nullptr);
    std::quick_exit(monitor->succeeded() ? 0 : 1);
}

}  // namespace

KestlyCommand addDownloadCommand(CLI::App& app) {
    auto options = std::make_shared<DownloadOptions>();
    CLI::App* command = app.add_subcommand(
        "download",
        "Fetch URLs with download workers sharing one queue; bodies go to files or, in URL order, to "
        "standard output. Exit status: 0 when every URL succeeded (any 2xx), 1 when one did not, 2 for a "
        "command line that cannot be used, checked before anything is fetched; 130 or 143 on SIGINT or SIGTERM, "
        "which leave every file as it was");
    command->add_option("URL", options->urls, "The URLs to fetch")->required();
    auto* output = command->add_option("-o,--output", options->output, "The file for the body of a single URL");
    command
        ->add_option("-d,--directory", options->directory, "Save each body in DIR under the URL's last path component")
        ->excludes(output);
    command->add_option("--workers", options->workers, "How many downloads run at once")
        ->check(CLI::Range(size_t{1}, kMaximumWorkers));
    command->add_option("-X,--request", options->request.method, "The HTTP method [GET, or POST with --data]");
    command->add_option("-H,--header", options->request.headers, "A request header, 'Name: value'")->allow_extra_args(false);
    command->add_option("--data", options->request.data,
                        "The request body: TEXT, @FILE for a file's contents, or @- for standard input");
    command->add_option("--timeout", options->request.timeout, "Seconds a request may go without progress [60]");
    command->add_option("--cacert", options->request.certificateAuthorities,
                        "Trust the certificate authorities of this PEM file instead of the system's [$CURL_CA_BUNDLE, "
                        "else $SSL_CERT_FILE]");
    command->add_option("--max-filesize", options->request.maximumSize,
                        "The most a body may have once decoded, in bytes or with K, M, G or T; a larger one fails "
                        "and lands nowhere [4G for a file, 512M for standard output]");
    command->add_flag("--json", options->json,
                      "Print one JSON line per finished URL and progress lines, instead of bodies and a bar");
    return {command, [options] { return download(*options); }};
}
