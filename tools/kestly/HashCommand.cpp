// kestly hash: the SHA-256 of files, printed as sha256sum prints it.

#include "KestlyCommand.h"

#include "CoreKestly/FileSystem/KSTFileHash.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

struct HashOptions {
    bool eco = false;
    std::vector<std::string> files;
};

int hashFiles(const HashOptions& options) {
    int status = 0;
    for (const auto& path : options.files) {
        const auto hash = options.eco ? KSTSha256ForFileAtPathEco(path) : KSTSha256ForFileAtPath(path);
        if (hash) {
            std::printf("%s  %s\n", hash->c_str(), path.c_str());
        } else {
            std::fflush(stdout);  // keep the two streams in the order of the files
            std::fprintf(stderr, "kestly: %s: cannot compute SHA-256\n", path.c_str());
            status = 1;
        }
    }
    return status;
}

}  // namespace

KestlyCommand addHashCommand(CLI::App& app) {
    auto options = std::make_shared<HashOptions>();
    CLI::App* command = app.add_subcommand("hash", "Print the SHA-256 of each FILE, as sha256sum does");
    command->add_flag("--eco", options->eco, "Hash in eco mode: rest 14 ms after every 40 ms of work");
    command->add_option("FILE", options->files, "Files to hash")->required();
    return {command, [options] { return hashFiles(*options); }};
}
