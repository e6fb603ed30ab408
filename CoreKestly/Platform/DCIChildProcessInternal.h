#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A program run as a child process with an argument vector (never through a shell): standard
/// input and standard error on /dev/null, standard output on a pipe whose read end the parent
/// reads without blocking, and no other descriptor of the parent inherited. The object owns
/// the child: destroying it closes the pipe, kills the child if it still runs and reaps it, so
/// no child outlives it and none is left a zombie.
class DCIChildProcess {
public:
    /// Starts `program` (an absolute path) with `arguments` (the first one included, by
    /// convention the program's name) and exactly the `environment` given ("NAME=value").
    /// Answers nullptr, with errno set, when the child cannot be made.
    static std::unique_ptr<DCIChildProcess> spawn(const std::string& program, const std::vector<std::string>& arguments,
                                                  const std::vector<std::string>& environment);
    ~DCIChildProcess();
    DCIChildProcess(const DCIChildProcess&) = delete;
    DCIChildProcess& operator=(const DCIChildProcess&) = delete;

    /// The read end of the child's standard output: non-blocking, closed on exec.
    int outputDescriptor() const { return output_; }
    /// A descriptor that becomes readable when the child has exited (a pidfd).
    int exitDescriptor() const { return exit_; }
    /// The child's wait status once it has exited, reaping it; nothing while it still runs.
    /// Never blocks.
    std::optional<int> reapIfExited();

private:
    DCIChildProcess(pid_t pid, int output, int exit) : pid_(pid), output_(output), exit_(exit) {}

    pid_t pid_;
    int output_;
    int exit_;
    std::optional<int> status_;  // set once reaped
};
