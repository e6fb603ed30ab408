// `kestly download` run as a program (the kestly of this build) against a loopback server.

#include "support/KestlyProgram.h"
#include "support/LoopbackHTTPServer.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>
#include <sstream>
#include <string>

namespace {

TEST(KestlyDownloadCommandTests, ExitStatusAndOutputFollowTheResults) {
    const LoopbackHTTPServer server([](httplib::Server& http) {
        http.Get("/(a|b).txt", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(request.matches[1] == "a" ? "hello" : "world", "text/plain");
        });
    });
    const TemporaryDirectory folder;

    const struct {
        const char* name;
        std::string arguments;  // "{}" stands for the server's address
        int status;
        std::string output;  // standard output, or for --json "status statusCode bytes" of each result
    } invocations[] = {
        {"bodies in URL order", "{}/b.txt {}/a.txt", 0, "worldhello"},
        {"one file per URL", "-d " + folder.path().string() + " {}/a.txt {}/b.txt", 0, ""},
        {"404 is no success", "--json {}/a.txt {}/missing", 1, "Completed 200 5\nCompleted 404 0\n"},
        {"-o with two URLs", "-o out {}/a.txt {}/b.txt", 2, ""}, {"malformed header", "-H nocolon {}/a.txt", 2, ""},
        {"method that is no token", "--json -X 'GET /b.txt HTTP/1.1' {}/a.txt", 1, "Failed null 0\n"},
    };
    for (const auto& invocation : invocations) {
        SCOPED_TRACE(invocation.name);
        std::string arguments = invocation.arguments;
        for (size_t at; (at = arguments.find("{}")) != std::string::npos;) arguments.replace(at, 2, server.url(""));
        auto [status, output] = runKestly("download " + arguments + " 2>/dev/null");
        EXPECT_EQ(status, invocation.status);

        if (arguments.starts_with("--json")) {
            // One line per action as it ends, in whatever order the workers finish.
            std::istringstream lines(output);
            std::set<std::string> results;
            for (std::string line; std::getline(lines, line);) {
                const auto json = nlohmann::json::parse(line);
                if (!json.contains("status")) continue;  // a progress line
                results.insert(json["status"].get<std::string>() + " " + json["statusCode"].dump() + " " +
                               json["bytes"].dump() + "\n");
            }
            output.clear();
            for (const auto& result : results) output += result;
        }
        EXPECT_EQ(output, invocation.output);
    }
    EXPECT_EQ(readWholeFile(folder / "a.txt") + readWholeFile(folder / "b.txt"), "helloworld");
}

}  // namespace
