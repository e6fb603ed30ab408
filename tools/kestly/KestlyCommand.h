#pragma once

#include <CLI/CLI.hpp>

#include <functional>

/// One subcommand of `kestly`: it adds its options to the program's parser and leaves
/// behind what runs it once the command line has been parsed. `run` answers the exit
/// status: 0 for success, 1 when the work failed, 2 for input that cannot be used.
struct KestlyCommand {
    CLI::App* subcommand;
    std::function<int()> run;
};

/// Whether kestly shows progress and notices on standard error: it is a terminal and -q was
/// not given. Errors and the data asked for are shown whatever it says.
bool showsProgressAndNotices();
/// Whether -v asked for the library's own lines on standard error.
bool showsLibraryLines();

// The subcommands; each lives in a file of its own and main.cpp lists them.
KestlyCommand addHashCommand(CLI::App& app);
KestlyCommand addScanCommand(CLI::App& app);
KestlyCommand addManifestCommand(CLI::App& app);
KestlyCommand addWatchCommand(CLI::App& app);
KestlyCommand addFindCommand(CLI::App& app);
KestlyCommand addDownloadCommand(CLI::App& app);
