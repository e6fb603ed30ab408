// kestly: each of the library's capabilities within reach of a person at a terminal.

#include "KestlyCommand.h"

#include "CoreKestly/DCLog/DCLogger.h"

#include <unistd.h>

#include <cstdio>
#include <vector>

namespace {

bool quiet = false;
bool verbose = false;

}  // namespace

bool showsProgressAndNotices() {
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    return terminal && !quiet;
}

bool showsLibraryLines() { return verbose; }

int main(int argc, char** argv) {
    CLI::App app{"kestly: watch, hash and read sample folders and project manifests, find samples and download, with CoreKestly"};
    app.set_version_flag("--version", std::string("kestly ") + KESTLY_VERSION);
    app.require_subcommand(0, 1);
    app.failure_message(CLI::FailureMessage::help);
    auto* quietFlag = app.add_flag("-q,--quiet", quiet, "Show no progress or notices: only the data asked for and errors");
    app.add_flag("-v,--verbose", verbose, "Show the library's own lines on standard error too, as they go to its log file")
        ->excludes(quietFlag);
    app.fallthrough();  // -q and -v may follow the subcommand

    const std::vector<KestlyCommand> commands = {
        addWatchCommand(app),
        addHashCommand(app),
        addScanCommand(app),
        addManifestCommand(app),
        addFindCommand(app),
        addDownloadCommand(app),
    };

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version are "errors" of exit code 0 that print to standard output; every
        // other one is a usage error, whatever CLI11's own code for it.
        return app.exit(error) == 0 ? 0 : 2;
    }
    // The library's lines, time-stamped and meant for its developers, would bury kestly's own;
    // kestly reports in its own words what the user must know, and the log file keeps them all.
    if (!verbose) DCLogSetSink(DCLogLevel::error, [](DCLogLevel, const std::string&) {});
    for (const auto& command : commands) {
        if (command.subcommand->parsed()) return command.run();
    }
    std::fputs(app.help().c_str(), stdout);
    return 0;
}
