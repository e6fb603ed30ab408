#include "CoreKestly/Platform/Search/DCIChildProcessInternal.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

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

// A pipe whose read end is non-blocking; both ends closed on exec.
bool makePipe(DCIFileDescriptor& readEnd, DCIFileDescriptor& writeEnd) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
    return fcntl(readEnd.get(), F_SETFL, O_NONBLOCK) == 0;
}

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
    DCIFileDescriptor output, outputWriteEnd, error, errorWriteEnd;
    if (!makePipe(output, outputWriteEnd) || !makePipe(error, errorWriteEnd)) return nullptr;

    SpawnSettings settings;
    // The child starts with no blocked signals and the default disposition of those a host
    // commonly changes, so a closed pipe ends it as it ends any program.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&settings.attributes, &none);
    posix_spawnattr_setsigdefault(&settings.attributes, &defaults);
    // A group of its own, which `stop` kills whole: a wrapper script's children go with it.
    posix_spawnattr_setpgroup(&settings.attributes, 0);
    posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_addopen(&settings.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&settings.actions, outputWriteEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&settings.actions, errorWriteEnd.get(), STDERR_FILENO);
    // Descriptors other threads open without O_CLOEXEC must not leak into the child either.
    posix_spawn_file_actions_addclosefrom_np(&settings.actions, STDERR_FILENO + 1);

    pid_t pid;
    const auto argv = nullTerminated(arguments);
    const auto envp = nullTerminated(environment);
    const int spawnError = posix_spawn(&pid, program.c_str(), &settings.actions, &settings.attributes, argv.data(),
                                       envp.data());
    if (spawnError != 0) {
        errno = spawnError;
        return nullptr;
    }
    // ESRCH: a host that ignores SIGCHLD has the kernel reap a child that is already done; what
    // it wrote is still in the pipe.
    DCIFileDescriptor exit(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));  // closed on exec
    if (!exit && errno != ESRCH) {
        const int openError = errno;
        DCIChildProcess(pid, std::move(output), std::move(error), std::move(exit)).stop();
        errno = openError;
        return nullptr;
    }
    return std::unique_ptr<DCIChildProcess>(
        new DCIChildProcess(pid, std::move(output), std::move(error), std::move(exit)));
}

std::optional<int> DCIChildProcess::exitStatus() {
    std::lock_guard lock(mutex_);
    siginfo_t info{};
    // ECHILD: reaped already, by `stop` or by the kernel for a host that ignores SIGCHLD.
    if (reaped_ || waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return kLostStatus;
    if (info.si_pid == 0) return std::nullopt;
    switch (info.si_code) {
        case CLD_EXITED: return W_EXITCODE(info.si_status, 0);
        case CLD_DUMPED: return info.si_status | WCOREFLAG;
        default: return info.si_status;  // killed by that signal
    }
}

void DCIChildProcess::stop() {
    std::lock_guard lock(mutex_);
    if (reaped_) return;
    // The child is not reaped yet, so the group's number is still its own and cannot have
    // been given to another group (unless the host ignores SIGCHLD: then the kernel reaped it,
    // and the number stays taken only while something of the group lives).
    kill(-pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {}
    reaped_ = true;
}
