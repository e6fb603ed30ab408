// Downloads over the loopback interface from a local server: `kestly download` against curl on
// one large file and on many small ones, and what progress costs the main thread. Prints
// figures; asserts nothing. Both programs fetch the same URLs from the same server into folders
// side by side, emptied before each run; the small files are fetched into the temporary folder's
// file system and, when it is another one, into a tmpfs (/dev/shm), as each costs differently.
// The server is one in this process and, when nginx is installed, nginx as well: a server in
// the process takes the same two cores as the programs it serves, nginx is what users meet.
//
//   DownloadBench [size of the large file in MiB, 1024] [number of small files, 1000]

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Downloads/DCIDownloader.h"
#include "CoreKestly/Events/DCIEventManager.h"
#include "support/StandardErrorToNull.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kChunk = 1 << 20;
constexpr size_t kSmallFileSize = 10 * 1024;

// Serves /large (the given size) and /small/N (10 KiB each).
class Server {
public:
    virtual ~Server() = default;
    virtual std::string name() const = 0;
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

protected:
    int port_ = 0;
};

// In this process, sending one buffer again and again.
class InProcessServer : public Server {
public:
    explicit InProcessServer(size_t largeSize) : chunk_(kChunk, 'k') {
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
    ~InProcessServer() override {
        server_.stop();
        thread_.join();
    }
    std::string name() const override { return "in-process server"; }

private:
    std::string chunk_;
    httplib::Server server_;
    std::thread thread_;
};

// nginx in a folder of its own, serving a sparse large file and one small file for every
// /small/N; nothing when nginx is missing or will not start.
class NginxServer : public Server {
public:
    static std::unique_ptr<NginxServer> start(size_t largeSize) {
        auto server = std::unique_ptr<NginxServer>(new NginxServer());
        return server->launch(largeSize) ? std::move(server) : nullptr;
    }
    ~NginxServer() override {
        if (child_ > 0) {
            kill(child_, SIGQUIT);
            waitpid(child_, nullptr, 0);
        }
        if (!folder_.empty()) std::filesystem::remove_all(folder_);
    }
    std::string name() const override { return "nginx"; }

private:
    NginxServer() = default;

    bool launch(size_t largeSize) {
        std::string pattern = (std::filesystem::temp_directory_path() / "kestly-nginx-XXXXXX").string();
        if (!mkdtemp(pattern.data())) return false;
        folder_ = pattern;
        // Its workers drop root for nobody, who must read the files.
        chmod(folder_.c_str(), 0755);
        const auto site = folder_ / "site";
        std::filesystem::create_directories(site);
        std::ofstream(site / "small") << std::string(kSmallFileSize, 'k');
        std::ofstream(site / "large").close();
        std::filesystem::resize_file(site / "large", largeSize);
        port_ = freePort();
        std::ofstream(folder_ / "nginx.conf")
            << "worker_processes 2;\nerror_log " << (folder_ / "error.log").string()
            << ";\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n  sendfile on;\n"
            << "  tcp_nodelay on;\n  keepalive_requests 100000;\n  client_body_temp_path "
            << (folder_ / "body").string() << ";\n  server {\n    listen 127.0.0.1:" << port_
            << ";\n    root " << site.string() << ";\n    location /small/ { rewrite ^ /small break; }\n  }\n}\n";
        child_ = fork();
        if (child_ == 0) {
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            const std::string prefix = folder_.string() + "/", config = (folder_ / "nginx.conf").string();
            const std::string globals = "daemon off; pid " + (folder_ / "nginx.pid").string() + ";";
            for (const char* program : {"nginx", "/usr/sbin/nginx"})
                execlp(program, program, "-p", prefix.c_str(), "-c", config.c_str(), "-g", globals.c_str(), nullptr);
            _exit(127);
        }
        for (int attempt = 0; attempt < 200; ++attempt) {
            if (waitpid(child_, nullptr, WNOHANG) == child_) {
                child_ = 0;
                return false;
            }
            if (accepts()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    static sockaddr_in loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        return address;
    }

    // A port the system had free a moment ago.
    static int freePort() {
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = loopback(0);
        socklen_t length = sizeof address;
        bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
        getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
        close(probe);
        return ntohs(address.sin_port);
    }

    bool accepts() const {
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = loopback(port_);
        const bool connected = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        close(probe);
        return connected;
    }

    std::filesystem::path folder_;
    pid_t child_ = 0;
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

// The best and the median of ten runs of each, as the machine may be busy with other work;
// the two take turns at going first, so that neither always runs on a warmer or a busier
// machine. `beforeEachRun` empties the output folders, so that neither program finds files to
// replace. A failed run counts as never ending.
void compare(const std::string& what, double bytes, const std::vector<std::string>& kestlyCommand,
             const std::vector<std::string>& curlCommand, const std::function<void()>& beforeEachRun = [] {}) {
    constexpr int kRounds = 10;
    std::vector<double> kestlySeconds, curlSeconds;
    const auto time = [&](std::vector<double>& seconds, const std::vector<std::string>& command) {
        beforeEachRun();
        const double run = timeProgram(command);
        seconds.push_back(run > 0 ? run : std::numeric_limits<double>::infinity());
    };
    for (int round = 0; round < kRounds; ++round) {
        if (round % 2 == 0) time(kestlySeconds, kestlyCommand);
        time(curlSeconds, curlCommand);
        if (round % 2 == 1) time(kestlySeconds, kestlyCommand);
    }
    for (auto* seconds : {&kestlySeconds, &curlSeconds}) std::sort(seconds->begin(), seconds->end());
    const auto median = [](const std::vector<double>& seconds) { return (seconds[4] + seconds[5]) / 2; };
    const auto rate = [&](double seconds) { return bytes / seconds / (1 << 20); };
    // The ratios are of speeds: kestly's time is their inverse times curl's.
    std::printf("%-58s kestly %8.1f MiB/s (%.3f s)   curl %8.1f MiB/s (%.3f s)   speed ratio best %.2f, median %.2f\n",
                what.c_str(), rate(kestlySeconds[0]), kestlySeconds[0], rate(curlSeconds[0]), curlSeconds[0],
                curlSeconds[0] / kestlySeconds[0], median(curlSeconds) / median(kestlySeconds));
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

// The large file and the small ones, from one server.
void compareWith(const Server& server, size_t largeSize, size_t smallCount) {
    const std::string kestly = KESTLY_BINARY;
    const std::string folderName = "kestly-download-bench-" + std::to_string(getpid());

    compare(server.name() + ": one large file to /dev/null", static_cast<double>(largeSize),
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
        compare(server.name() + ": " + std::to_string(smallCount) + " small files, 4 at once, " + place,
                static_cast<double>(smallCount * kSmallFileSize), kestlyCommand, curlCommand, emptyFolders);
        std::filesystem::remove_all(folder);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const size_t largeSize = (argc > 1 ? std::stoul(argv[1]) : 1024) << 20;
    const size_t smallCount = argc > 2 ? std::stoul(argv[2]) : 1000;
    {
        const InProcessServer server(largeSize);
        compareWith(server, largeSize, smallCount);
        measureProgressCost(server, largeSize);
    }
    if (const auto nginx = NginxServer::start(largeSize)) {
        compareWith(*nginx, largeSize, smallCount);
    } else {
        std::printf("nginx: not installed or would not start; skipped\n");
    }
    return 0;
}
