#include "CoreKestly/Platform/DCIChildProcessInternal.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

namespace {

// Owns a descriptor until released.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnSettings {
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    SpawnSettings() {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
};

std::vector<char*> nullTerminated(const std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (const auto& string : strings) pointers.push_back(const_cast<char*>(string.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

std::unique_ptr<DCIChildProcess> DCIChildProcess::spawn(const std::string& program,
                                                        const std::vector<std::string>& arguments,
                                                        const std::vector<std::string>& environment) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return nullptr;
    Descriptor readEnd(ends[0]), writeEnd(ends[1]);
    if (fcntl(readEnd.get(), F_SETFL, O_NONBLOCK) != 0) return nullptr;

    SpawnSettings settings;
    // The child starts with no blocked signals and the default disposition of those a host
    // commonly changes, so a closed pipe ends it as it ends any program.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&settings.attributes, &none);
    posix_spawnattr_setsigdefault(&settings.attributes, &defaults);
    posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_addopen(&settings.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&settings.actions, writeEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&settings.actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    // Descriptors other threads open without O_CLOEXEC must not leak into the child either.
    posix_spawn_file_actions_addclosefrom_np(&settings.actions, STDERR_FILENO + 1);

    pid_t pid;
    const auto argv = nullTerminated(arguments);
    const auto envp = nullTerminated(environment);
    const int error = posix_spawn(&pid, program.c_str(), &settings.actions, &settings.attributes, argv.data(),
                                  envp.data());
    if (error != 0) {
        errno = error;
        return nullptr;
    }
    const int exit = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));  // closed on exec
    if (exit < 0) {
        const int openError = errno;
        // ESRCH: already gone and reaped by the kernel for a host that ignores SIGCHLD.
        if (openError != ESRCH) {
            kill(pid, SIGKILL);
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {}
        }
        errno = openError;
        return nullptr;
    }
    return std::unique_ptr<DCIChildProcess>(new DCIChildProcess(pid, readEnd.release(), exit));
}

std::optional<int> DCIChildProcess::reapIfExited() {
    if (status_) return status_;
    int status = 0;
    const pid_t reaped = waitpid(pid_, &status, WNOHANG);
    // ECHILD: a host that ignores SIGCHLD has the kernel reap its children; the status is lost.
    if (reaped == pid_) status_ = status;
    else if (reaped < 0 && errno == ECHILD) status_ = 0;
    return status_;
}

DCIChildProcess::~DCIChildProcess() {
    close(output_);
    if (!reapIfExited()) {
        // Through the pidfd: never another process that was given the same id.
        syscall(SYS_pidfd_send_signal, exit_, SIGKILL, nullptr, 0);
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {}
    }
    close(exit_);
}
