#pragma once

#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// A program run as a child process with an argument vector (never through a shell), in a
/// process group of its own: standard input on /dev/null, standard output and standard error
/// on pipes whose read ends the parent reads without blocking, and no other descriptor of the
/// parent inherited. The object owns the child: `stop`, which its destructor calls, kills the
/// whole group (a wrapper script and what it started) and reaps the child, so nothing it
/// started outlives it and none is left a zombie.
class DCIChildProcess {
public:
    /// A wait status no child has: the host ignores SIGCHLD, so the kernel reaped the child
    /// and its status is lost.
    static constexpr int kLostStatus = -1;

    /// Starts `program` (an absolute path) with `arguments` (the first one included, by
    /// convention the program's name) and exactly the `environment` given ("NAME=value").
    /// Answers nullptr, with errno set, when the child cannot be made.
    static std::unique_ptr<DCIChildProcess> spawn(const std::string& program, const std::vector<std::string>& arguments,
                                                  const std::vector<std::string>& environment);
    ~DCIChildProcess() { stop(); }
    DCIChildProcess(const DCIChildProcess&) = delete;
    DCIChildProcess& operator=(const DCIChildProcess&) = delete;

    /// The read end of the child's standard output: non-blocking, closed on exec.
    int outputDescriptor() const { return output_.get(); }
    /// The read end of the child's standard error: non-blocking, closed on exec.
    int errorDescriptor() const { return error_.get(); }
    /// A descriptor that becomes readable when the child has exited (a pidfd), or -1 when the
    /// child had exited, and been reaped by the kernel, before it could be opened.
    int exitDescriptor() const { return exit_.get(); }
    /// The child's wait status once it has exited (or `kLostStatus`); nothing while it runs.
    /// Never blocks, and leaves the child unreaped, so that no other process can take its
    /// group's number before `stop` has killed what is left in the group.
    std::optional<int> exitStatus();
    /// Kills the child's process group and reaps the child, at once; does nothing the second
    /// time. Any thread, also while another thread reads the child's output.
    void stop();

private:
    DCIChildProcess(pid_t pid, DCIFileDescriptor output, DCIFileDescriptor error, DCIFileDescriptor exit)
        : pid_(pid), output_(std::move(output)), error_(std::move(error)), exit_(std::move(exit)) {}

    const pid_t pid_;
    const DCIFileDescriptor output_;
    const DCIFileDescriptor error_;
    const DCIFileDescriptor exit_;
    std::mutex mutex_;  // guards the waits on the child and `reaped_`
    bool reaped_ = false;
};
