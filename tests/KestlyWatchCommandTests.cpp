// `kestly watch` run as a program, with its commands on standard input.

#include "support/KestlyProgram.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

TEST(KestlyWatchCommand, PrintsEventsTakesCommandsInOrderAndExitsAsDocumented) {
    const TemporaryDirectory folder;
    const std::string root = folder.makeFolder("root");
    folder.writeFile("root/a.wav", "a");
    const std::string caches = " --primary-cache " + shellQuoted(folder / "p.sqlite") + " --secondary-cache " +
                               shellQuoted(folder / "s.sqlite");
    auto watch = [&](const std::string& arguments, const std::string& input) {
        std::ofstream(folder / "input") << input;
        return runKestly("watch " + arguments + caches + " <" + shellQuoted(folder / "input") + " 2>/dev/null");
    };
    // The three lines of an action that runs to completion.
    auto completed = [](const std::string& op, const std::string& paths) {
        const std::string action = "action " + op;
        return action + " Pending " + paths + "\n" + action + " Running " + paths + "\n" + action + " Completed " + paths + "\n";
    };
    struct Case { const char* name; std::string arguments, input; int status; std::string output; };
    const Case cases[] = {
        {"missing root", shellQuoted(folder / "missing"), "", 3, "root removed\nstopped\n"},
        // The mkdir is queued first and must run first, though the queue hands out the newest first.
        {"commands in order", shellQuoted(root),
         "mkdir " + root + "/D\nmove " + root + "/a.wav " + root + "/D/a.wav\nstop\n", 0,
         completed("mkdir", root + "/D") + completed("move", root + "/a.wav -> " + root + "/D/a.wav") + "stopped\n"},
        {"a JSON path under the wrong key", shellQuoted(root) + " --json",
         R"({"op": "move", "path": ")" + root + R"(/D/a.wav", "to": ")" + root + "/b.wav\"}\nstop\n", 0,
         "{\"event\":\"FileManagerStopped\",\"type\":2}\n"},
        {"no root", "", "", 2, ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        auto run = watch(test.arguments, test.input);
        EXPECT_EQ(run.status, test.status);
        // Commands may be queued before the ready line or after it: it is checked on its own.
        const std::string ready = test.arguments.find("--json") == std::string::npos
                                      ? "ready\n" : "{\"event\":\"FileManagerReady\",\"type\":1}\n";
        const size_t readyAt = run.output.find(ready);
        EXPECT_EQ(readyAt != std::string::npos, test.status != 2);
        if (readyAt != std::string::npos) run.output.erase(readyAt, ready.size());
        EXPECT_EQ(run.output, test.output);
    }
    EXPECT_TRUE(fs::exists(root + "/D/a.wav"));
    EXPECT_FALSE(fs::exists(root + "/b.wav"));
}

}  // namespace
