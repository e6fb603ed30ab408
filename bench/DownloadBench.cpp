// Downloads over the loopback interface from a local server: `kestly download` against curl on
// one large file and on many small ones, and what progress costs the main thread. Prints
// figures; asserts nothing. Both programs fetch the same URLs from the same server into folders
// side by side, emptied before each run; the small files are fetched into the temporary folder's
// file system and, when it is another one, into a tmpfs (/dev/shm), as each costs differently.
//
//   DownloadBench [size of the large file in MiB, 1024] [number of small files, 1000]

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Downloads/DCIDownloader.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "support/StandardErrorToNull.h"

#include <httplib.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kChunk = 1 << 20;
constexpr size_t kSmallFileSize = 10 * 1024;

// Serves /large (the given size, from one buffer sent again and again) and /small/N.
class Server {
public:
    explicit Server(size_t largeSize) : chunk_(kChunk, 'k') {
        server_.Get("/large", [this, largeSize](const httplib::Request&, httplib::Response& response) {
            response.set_content_provider(largeSize, "application/octet-stream",
                                          [this, largeSize](size_t offset, size_t, httplib::DataSink& sink) {
                                              return sink.write(chunk_.data(), std::min(kChunk, largeSize - offset));
                                          });
        });
        server_.Get(R"(/small/(\d+))", [this](const httplib::Request&, httplib::Response& response) {
            response.set_content(chunk_.data(), kSmallFileSize, "application/octet-stream");
        });
        // Without it, Nagle's algorithm holds each small body back for the client's delayed ACK.
        server_.set_tcp_nodelay(true);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~Server() {
        server_.stop();
        thread_.join();
    }
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

private:
    std::string chunk_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

// Runs a program with its output thrown away; answers the seconds it took, or -1 on failure.
double timeProgram(const std::vector<std::string>& arguments) {
    const auto start = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        std::vector<char*> argv;
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? seconds : -1;
}

// The best of a few runs of each, as the machine may be busy with other work; the two take
// turns at going first, so that neither always runs on a warmer or a busier machine.
// `beforeEachRun` empties the output folders, so that neither program finds files to replace.
void compare(const std::string& what, double bytes, const std::vector<std::string>& kestlyCommand,
             const std::vector<std::string>& curlCommand, const std::function<void()>& beforeEachRun = [] {}) {
    double kestlySeconds = -1, curlSeconds = -1;
    const auto best = [&](double& seconds, const std::vector<std::string>& command) {
        beforeEachRun();
        const double run = timeProgram(command);
        if (run > 0 && (seconds < 0 || run < seconds)) seconds = run;
    };
    for (int round = 0; round < 6; ++round) {
        if (round % 2 == 0) best(kestlySeconds, kestlyCommand);
        best(curlSeconds, curlCommand);
        if (round % 2 == 1) best(kestlySeconds, kestlyCommand);
    }
    const auto rate = [&](double seconds) { return seconds > 0 ? bytes / seconds / (1 << 20) : 0; };
    // The ratio is of speeds: kestly's time is its inverse times curl's.
    std::printf("%-40s kestly %8.1f MiB/s (%.3f s)   curl %8.1f MiB/s (%.3f s)   speed ratio %.2f\n", what.c_str(),
                rate(kestlySeconds), kestlySeconds, rate(curlSeconds), curlSeconds,
                curlSeconds > 0 && kestlySeconds > 0 ? curlSeconds / kestlySeconds : 0);
}

// Counts progress events on the main thread.
class ProgressCounter : public DCIEventListener {
public:
    size_t events = 0;
    void handleEvent(const std::shared_ptr<DCIEvent>& event) override {
        if (event->isCommonEventOfType(DCIEventTypeDownloadProgress)) ++events;
    }
};

void measureProgressCost(const Server& server, size_t largeSize) {
    const StandardErrorToNull quiet;
    const auto counter = std::make_shared<ProgressCounter>();
    DCIEventManager::addListener(counter);
    const auto queue = DCIActionQueue::init();
    const auto worker = DCIDownloader::initWithQueue(queue);
    const auto action = DCIDownloader::fileDownloadActionWithRequest(
        DCIURLRequest::requestWithURL(server.url("/large")), std::string("/dev/null"));
    const auto start = Clock::now();
    queue->addAction(action);
    DCIRunLoop::main().runUntil([&] { return action->status() >= DCIActionStatusFailed && !worker->currentAction(); },
                                std::chrono::minutes(10));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    worker->close();
    DCIRunLoop::main().runUntil(Clock::now() + std::chrono::milliseconds(100));
    DCIEventManager::removeListener(counter);
    std::printf("%-40s %8.1f MiB/s in process, %zu progress events in %.3f s: %.0f events/s on the main thread\n",
                "progress cost (one worker)", static_cast<double>(largeSize) / seconds / (1 << 20), counter->events,
                seconds, static_cast<double>(counter->events) / seconds);
}

}  // namespace

int main(int argc, char** argv) {
    const size_t largeSize = (argc > 1 ? std::stoul(argv[1]) : 1024) << 20;
    const size_t smallCount = argc > 2 ? std::stoul(argv[2]) : 1000;
    const Server server(largeSize);
    const std::string kestly = KESTLY_BINARY;
    const std::string folderName = "kestly-download-bench-" + std::to_string(getpid());

    compare("one large file to /dev/null", static_cast<double>(largeSize),
            {kestly, "download", "-o", "/dev/null", server.url("/large")},
            {"curl", "-sf", "-o", "/dev/null", server.url("/large")});

    std::vector<std::string> urls;
    for (size_t i = 0; i < smallCount; ++i) urls.push_back(server.url("/small/" + std::to_string(i)));
    std::vector<std::pair<std::string, std::filesystem::path>> places = {
        {"temporary folder", std::filesystem::temp_directory_path()}};
    struct statfs temporary, shared;
    if (statfs(places[0].second.c_str(), &temporary) == 0 && temporary.f_type != TMPFS_MAGIC &&
        statfs("/dev/shm", &shared) == 0 && shared.f_type == TMPFS_MAGIC) {
        places.emplace_back("tmpfs", "/dev/shm");
    }
    for (const auto& [place, root] : places) {
        const auto folder = root / folderName;
        std::vector<std::string> kestlyCommand = {kestly, "download", "--workers", "4", "-d", (folder / "k").string()};
        std::vector<std::string> curlCommand = {"curl", "-sf", "--parallel", "--parallel-max", "4", "--remote-name-all"};
        curlCommand.insert(curlCommand.end(), {"--output-dir", (folder / "c").string()});
        kestlyCommand.insert(kestlyCommand.end(), urls.begin(), urls.end());
        curlCommand.insert(curlCommand.end(), urls.begin(), urls.end());
        const auto emptyFolders = [&] {
            std::filesystem::remove_all(folder);
            std::filesystem::create_directories(folder / "k");
            std::filesystem::create_directories(folder / "c");
        };
        compare("small files, 4 at once (" + std::to_string(smallCount) + ", " + place + ")",
                static_cast<double>(smallCount * kSmallFileSize), kestlyCommand, curlCommand, emptyFolders);
        std::filesystem::remove_all(folder);
    }

    measureProgressCost(server, largeSize);
    return 0;
}
