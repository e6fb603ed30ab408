// `kestly manifest` run as a program (the kestly of this build): what reaches the terminal, and
// its exit statuses.

#include "support/KestlyProgram.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

// A title sequence, colours, a forged table row, a reordering mark, a C1 control and a
// backslash that must not pass for an escape.
constexpr const char* kHostileManifest = R"({"creator_id": 1, "path": "P", "username": "ann", "uuid": "u",
    "name": "\u001b]0;title\u0007\u001b[31mred\\x41", "files": {"samples": [{"path": "P/a\nsamples  1  -  -  x.wav",
    "file_hash": "", "file_size": 1, "url": "u", "sas_id": "\u202eevil\u0085"}]}})";

TEST(DCIManifestV2ProjectCommandTests, TheTableEscapesAndTheExitStatusesHoldTheirWord) {
    TemporaryDirectory folder;
    const std::string file = "'" + folder.writeFile("m.json", kHostileManifest) + "'";
    const auto [status, table] = runKestly("manifest " + file + " 2>/dev/null");
    ASSERT_EQ(status, 0);
    EXPECT_NE(table.find("name               \\u{1B}]0;title\\u{7}\\u{1B}[31mred\\\\x41\n"), std::string::npos);
    EXPECT_NE(table.find("  \\u{202E}evil\\u{85}  a\\u{A}samples  1  -  -  x.wav\n1 file\n"), std::string::npos);

    const std::vector<std::pair<std::string, int>> runs = {
        {"manifest", 2}, {"manifest --no-such-option " + file, 2}, {"manifest '" + (folder / "missing.json") + "'", 2},
        {"manifest /dev/zero", 2}, {"manifest " + file + " >/dev/full", 2},
    };
    for (const auto& [arguments, expected] : runs) {
        EXPECT_EQ(runKestly(arguments + " 2>/dev/null").status, expected) << arguments;
    }
}

}  // namespace
