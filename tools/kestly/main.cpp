// kestly: each of the library's capabilities within reach of a person at a terminal.

#include "KestlyCommand.h"

#include <cstdio>
#include <vector>

int main(int argc, char** argv) {
    CLI::App app{"kestly: watch, hash and read sample folders and project manifests, find samples and download, with CoreKestly"};
    app.set_version_flag("--version", std::string("kestly ") + KESTLY_VERSION);
    app.require_subcommand(0, 1);
    app.failure_message(CLI::FailureMessage::help);

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
    for (const auto& command : commands) {
        if (command.subcommand->parsed()) return command.run();
    }
    std::fputs(app.help().c_str(), stdout);
    return 0;
}
