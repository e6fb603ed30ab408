#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>

/// The `kestly` program of this build, named by the build for every command test.
inline std::filesystem::path kestlyProgram() { return KESTLY_BINARY; }

/// `text` quoted for a shell command line.
inline std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

struct ProgramRun {
    int status;  // the exit status, or -1 when the program did not exit
    std::string output;
};

/// Runs `kestly` with `arguments`, a shell command line's tail, and collects its standard output.
inline ProgramRun runKestly(const std::string& arguments) {
    FILE* pipe = popen((shellQuoted(kestlyProgram().string()) + " " + arguments).c_str(), "r");
    if (!pipe) return {-1, ""};
    std::string output;
    char buffer[4096];
    while (const size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, count);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}
