// `kestly manifest` run as a program: what reaches the terminal, and its exit statuses. The
// program is looked for where the build puts it beside the tests; a build without it skips.

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string shellQuoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

class DCIManifestV2ProjectCommandTests : public ::testing::Test {
protected:
    void SetUp() override {
        program = fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools/kestly/kestly";
        if (!fs::exists(program)) GTEST_SKIP() << "kestly is not built at " << program;
        nlohmann::json manifest = {{"creator_id", 1}, {"path", "P"}, {"username", "ann"}, {"uuid", "u"},
                                   {"name", "\x1b]0;title\x07\x1b[31mred\\x41"}};
        manifest["files"]["samples"] = {{{"path", "P/a\nsamples  1  -  -  forged.wav"}, {"file_hash", ""},
                                         {"file_size", 1}, {"url", "u"}, {"sas_id", "\u202Eevil\u0085"}}};
        file = folder.writeFile("m.json", manifest.dump());
    }

    // Standard output and exit status of kestly with `arguments` (quoted by the caller).
    std::pair<std::string, int> kestly(const std::string& arguments) const {
        FILE* pipe = popen((shellQuoted(program.string()) + " " + arguments + " 2>/dev/null").c_str(), "r");
        if (!pipe) return {"", -1};
        std::string output;
        char buffer[4096];
        while (const size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, count);
        const int status = pclose(pipe);
        return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
    }

    fs::path program;
    TemporaryDirectory folder;
    std::string file;
};

TEST_F(DCIManifestV2ProjectCommandTests, TheTableEscapesWhatWouldActOnTheTerminal) {
    const auto [output, status] = kestly("manifest " + shellQuoted(file));
    ASSERT_EQ(status, 0);
    EXPECT_NE(output.find("name               \\u{1B}]0;title\\u{7}\\u{1B}[31mred\\\\x41\n"), std::string::npos)
        << output;
    EXPECT_NE(output.find("  \\u{202E}evil\\u{85}  a\\u{A}samples  1  -  -  forged.wav\n1 file\n"), std::string::npos)
        << output;
}

TEST_F(DCIManifestV2ProjectCommandTests, ExitStatuses) {
    const std::vector<std::pair<std::string, int>> runs = {
        {"manifest " + shellQuoted(file), 0},
        {"manifest", 2},
        {"manifest --no-such-option " + shellQuoted(file), 2},
        {"manifest " + shellQuoted(folder / "missing.json"), 2},
        {"manifest /dev/zero", 2},
        {"manifest " + shellQuoted(file) + " >/dev/full", 2},
    };
    for (const auto& [arguments, expected] : runs) EXPECT_EQ(kestly(arguments).second, expected) << arguments;
}

}  // namespace
