// The `kestly` program of this build run as a person runs it, with arguments, standard input
// and a terminal's worth of output: scan, download, manifest, watch and find.

#include "support/KestlyProgram.h"
#include "support/LoopbackHTTPServer.h"
#include "support/Testing.h"

#include <nlohmann/json.hpp>

#include <sys/resource.h>

namespace {

class KestlyScanCommandTests : public ::testing::Test {
protected:
    // Runs `kestly scan` with `arguments` (already quoted), with $XDG_CACHE_HOME in `caches`.
    ProgramRun scan(const std::string& arguments) const {
        const ScopedEnvironment cacheHome("XDG_CACHE_HOME", caches.path().c_str());
        return runKestly("scan " + arguments + " 2>" + shellQuoted(caches / "stderr"));
    }
    std::string errors() const { return readWholeFile(caches / "stderr"); }

    // The root is given unstandardised, to be printed standardised.
    ProgramRun scanJSON() const {
        return scan(shellQuoted(root.path().string() + "/./") + " --primary-ext ALS --secondary-ext wav --json");
    }

    TemporaryDirectory root;
    TemporaryDirectory caches;
};

// A name that is not UTF-8 is carried with a replacement character.
TEST_F(KestlyScanCommandTests, JSONListsTheTreeSortedAndCachesItsHashes) {
    root.writeFiles({"b/kick.wav", "a/Song.als", "a/notes.txt", "caf\xe9.wav"});
    root.makeFolder("a/empty");
    const std::string song = root / "a/Song.als";
    setModificationTime(song, 1'000'000'000);

    const ProgramRun first = scanJSON();
    ASSERT_EQ(first.status, 0) << errors();
    auto document = nlohmann::json::parse(first.output);
    EXPECT_GT(document["files"][0]["created"], 1'000'000'000);
    for (auto& file : document["files"]) file.erase("created");
    const auto file = [](const char* path) { return nlohmann::json{{"path", path}, {"sha256", kSHA256OfABC}}; };
    auto expected = nlohmann::json{{"root", root.path().string()}, {"folders", {"a", "a/empty", "b"}},
                                   {"files", {file("a/Song.als"), file("b/kick.wav"), file("caf\uFFFD.wav")}},
                                   {"hashed", 3}, {"cacheHits", 0}};
    expected["files"][0]["modified"] = 1'000'000'000;
    document["files"][1].erase("modified");
    document["files"][2].erase("modified");
    EXPECT_EQ(document, expected);
    EXPECT_TRUE(fs::exists(caches / "kestly/primary.sqlite") && fs::exists(caches / "kestly/secondary.sqlite"));

    const auto counts = [](const nlohmann::json& run) { return std::pair(run["hashed"], run["cacheHits"]); };
    const auto again = nlohmann::json::parse(scanJSON().output);
    EXPECT_EQ(counts(again), std::pair(nlohmann::json(0), nlohmann::json(3)));
    setModificationTime(song, 1'100'000'000);
    EXPECT_EQ(counts(nlohmann::json::parse(scanJSON().output)), std::pair(nlohmann::json(1), nlohmann::json(2)));
}

TEST_F(KestlyScanCommandTests, TheSummaryCountsWhatWasReadAndAMissingRootExitsWithTwo) {
    root.writeFile("a/kick.wav", "abc");
    root.writeFile("snare.wav", "abcd");
    const std::string ownCaches = caches.makeFolder("own");
    const std::string arguments = shellQuoted(root.path().string()) + " --secondary-ext wav --primary-cache " +
                                  shellQuoted(ownCaches + "/p.db") + " --secondary-cache " + shellQuoted(ownCaches + "/s.db");
    const ProgramRun run = scan(arguments);
    ASSERT_EQ(run.status, 0) << errors();
    EXPECT_TRUE(run.output.starts_with("folders: 1, files: 2, bytes hashed: 7 (2 files read), cache hits: 0, time: "))
        << run.output;
    EXPECT_TRUE(fs::exists(ownCaches + "/s.db"));
    EXPECT_FALSE(fs::exists(caches / "kestly")) << "no default cache is made when both are given";

    const ProgramRun missing = scan(shellQuoted(root / "missing"));
    EXPECT_EQ(std::tuple(missing.status, missing.output), std::tuple(2, ""));
    EXPECT_TRUE(errors().starts_with("kestly: " + (root / "missing") + ": ")) << errors();
}

TEST(KestlyDownloadCommandTests, ExitStatusAndOutputFollowTheResults) {
    static constexpr size_t kBigSize = size_t{100} << 20;
    const LoopbackHTTPServer server([](httplib::Server& http) {
        http.Get("/(a|b).txt", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(request.matches[1] == "a" ? "hello" : "world", "text/plain");
        });
        http.Post("/echo", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(request.body, "text/plain");
        });
        http.Get("/big", [](const httplib::Request&, httplib::Response& response) {
            response.set_content_provider(kBigSize, "text/plain", [](size_t offset, size_t length, auto& sink) {
                static const std::string block(1 << 16, 'x');
                return sink.write(block.data(), std::min({length, block.size(), kBigSize - offset}));
            });
        });
        http.Get(R"(/status/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
            response.status = std::stoi(request.matches[1]);
            response.set_content(request.matches[1], "text/plain");
        });
    });
    const TemporaryDirectory folder;
    const std::string body = folder.writeFile("body", "sent");
    folder.writeFile("keep.txt", "kept");
    // Replaced through a link, it keeps its mode and, replaced by root, its owner; new files take
    // the umask's mode, as curl's do.
    const std::string victim = folder.writeFile("victim.txt", "old");
    fs::permissions(victim, fs::perms(0604));
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(victim.c_str(), 12345, 12346), 0);
    }
    fs::create_symlink("victim.txt", folder / "link.txt");
    fs::create_symlink("/proc/self/fd/1", folder / "stdout");  // as /dev/stdout is, without risking it

    // "{}" in the arguments stands for the server's address; the output is the standard output, or
    // for --json [status, statusCode, bytes] of each result.
    const struct { const char* name; std::string arguments; int status; std::string output; } invocations[] = {
        {"bodies in URL order", "{}/b.txt {}/a.txt", 0, "worldhello"},
        {"a body streams through, never held", "{}/big | wc -c", 0, std::to_string(kBigSize) + "\n"},
        {"one file per URL", "-d " + folder.path().string() + " {}/a.txt {}/b.txt", 0, ""},
        {"404 is no success", "--json {}/a.txt {}/missing", 1, R"(["Completed",200,5])" "\n" R"(["Completed",404,0])" "\n"},
        {"-o with two URLs", "-o out {}/a.txt {}/b.txt", 2, ""}, {"malformed header", "-H nocolon {}/a.txt", 2, ""},
        {"a failed download keeps the file it would replace", "-o " + (folder / "keep.txt") + " {}/missing", 1, ""},
        {"method that is no token", "-X 'GET /b.txt HTTP/1.1' {}/a.txt", 2, ""}, {"no size", "--max-filesize 3X {}/a", 2, ""},
        {"URL with a space", "'{}/a.txt HTTP/1.1' {}/b.txt", 2, ""}, {"URL with a line break", "'{}/a.txt\nX: y'", 2, ""},
        {"body from standard input twice", "--data @- {}/echo {}/echo < " + body, 0, "sentsent"},
        {"body from a device", "--data @/dev/stdin {}/echo < /dev/null", 0, ""}, {"-o", "-o /dev/null {}/a.txt", 0, ""},
        {"any 2xx is success", "{}/status/201", 0, "201"}, {"409 is no success", "{}/status/409", 1, "409"},
        {"a body past --max-filesize", "--max-filesize 4 {}/a.txt", 1, ""}, {"", "--max-filesize 5 {}/a.txt", 0, "hello"},
        {"...counted decoded, and landing nowhere", "--max-filesize 4 -o " + (folder / "keep.txt") + " {}/a.txt", 1, ""},
        {"-o writes through a link", "-o " + (folder / "link.txt") + " {}/b.txt", 0, ""},
        {"-o names standard output", "-o " + (folder / "stdout") + " {}/a.txt", 0, "hello"},
        {"-o names descriptor 1", "-o /proc/self/fd/1 {}/b.txt", 0, "world"},
    };
    const mode_t previousUmask = umask(027);
    for (const auto& invocation : invocations) {
        SCOPED_TRACE(invocation.name);
        std::string arguments = invocation.arguments;
        for (size_t at; (at = arguments.find("{}")) != std::string::npos;) arguments.replace(at, 2, server.url(""));
        auto [status, output] = runKestly("download " + arguments + " 2>/dev/null");
        EXPECT_EQ(status, invocation.status);

        if (arguments.starts_with("--json")) {  // a line per action as it ends, in any order, among progress lines
            std::istringstream lines(std::exchange(output, ""));
            std::set<std::string> results;
            for (std::string line; std::getline(lines, line);) {
                const auto json = nlohmann::json::parse(line);
                if (!json.contains("status")) continue;  // a progress line
                results.insert(nlohmann::json{json["status"], json["statusCode"], json["bytes"]}.dump() + "\n");
            }
            for (const auto& result : results) output += result;
        }
        EXPECT_EQ(output, invocation.output);
    }
    EXPECT_EQ(readWholeFile(folder / "a.txt") + readWholeFile(folder / "b.txt") + readWholeFile(folder / "keep.txt") +
                  readWholeFile(folder / "victim.txt"),
              "helloworldkeptworld");
    umask(previousUmask);
    rusage children;
    getrusage(RUSAGE_CHILDREN, &children);
    if (!kUnderMemorySanitizer) {
        EXPECT_LT(children.ru_maxrss, 64 << 10) << "KiB at most, with a body of 100 MiB";
    }
    EXPECT_TRUE(fs::is_symlink(folder / "link.txt") && fs::is_symlink(folder / "stdout"));
    struct stat made, kept;
    ASSERT_EQ(stat((folder / "a.txt").c_str(), &made) | stat(victim.c_str(), &kept), 0);
    EXPECT_EQ(std::tuple(made.st_mode & 07777, kept.st_mode & 07777), std::tuple(0640u, 0604u));
    EXPECT_EQ(std::tuple(kept.st_uid, kept.st_gid), root ? std::tuple(12345u, 12346u) : std::tuple(geteuid(), getegid()));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 7) << "no staging file is left";
}

// Paths reach a pipe exactly as they are on disk, absolute whatever --scope was given as; bad
// counts are usage errors; a search that could not be made is no "not found".
TEST(KestlyFindCommandTests, PrintsExactAbsolutePathsAndExitsAsDocumented) {
    const TemporaryDirectory folder;
    folder.writeFile("a\\b.wav", "abc");
    folder.writeFile("line\nbreak.wav", "abc");
    const std::string corrupt = folder.writeFile("corrupt.db", "PLOCATE");
    for (int i = 0; i < 20000; ++i) fs::create_directories(folder / ("many/" + std::to_string(i % 100) + "/" + std::to_string(i)));  // a scan far longer than the millisecond waited
    const fs::path started = fs::current_path();
    fs::current_path(folder.path());
    const struct { std::string arguments; int status; std::string output; } runs[] = {
        {"'a\\b.wav' --size 3 --scope .", 0, folder / "a\\b.wav\n"},
        {"'line?break.wav' -0 --size 3 --scope .", 0, folder / "line\nbreak.wav" + std::string(1, '\0')},
        {"'*.wav' -0 --candidates --scope .", 0, folder / "a\\b.wav" + '\0' + folder / "line\nbreak.wav" + '\0'},
        {"a.wav --size 3 --scope .", 1, ""},
        {"a.wav --size -1 --scope .", 2, ""}, {"a.wav --duration -18446744073709551617 --scope .", 2, ""},
        {"a.wav --size 3 --locate-db " + corrupt, 3, ""}, {"a.wav --candidates --locate-db " + corrupt, 3, ""},
        {"a.wav --candidates --wait 0.000001 --scope .", 3, ""},
    };
    for (const auto& run : runs) {
        const auto [status, output] = runKestly("find " + run.arguments + " 2>/dev/null");
        EXPECT_EQ(std::tuple(status, output), std::tuple(run.status, run.output)) << run.arguments;
    }
    fs::current_path(started);
}

// A server's own certificate is trusted once named, as curl names it, and only then.
TEST(KestlyDownloadCommandTests, ACertificateAuthorityNamedIsTrusted) {
    const TemporaryDirectory folder;
    const std::string certificate = folder / "cert.pem", key = folder / "key.pem";
    ASSERT_EQ(std::system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 "
                           "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " + shellQuoted(key) +
                           " -out " + shellQuoted(certificate) + " 2>/dev/null").c_str()), 0);
    const LoopbackHTTPServer server([](httplib::Server& http) {
        http.Get("/a", [](const auto&, httplib::Response& response) { response.set_content("a", "text/plain"); });
    }, certificate.c_str(), key.c_str());
    const struct { const char* variable; std::string option; ProgramRun run; } runs[] = {
        {"HOME", "", {1, ""}}, {"HOME", "--cacert " + shellQuoted(certificate), {0, "a"}},
        {"CURL_CA_BUNDLE", "", {0, "a"}}, {"SSL_CERT_FILE", "", {0, "a"}},
    };
    const ScopedEnvironment noBundle("CURL_CA_BUNDLE", nullptr), noFile("SSL_CERT_FILE", nullptr);
    for (const auto& [variable, option, expected] : runs) {
        SCOPED_TRACE(variable + option);
        const ScopedEnvironment trusted(variable, certificate.c_str());
        const auto [status, output] = runKestly("download " + option + " " + server.url("/a") + " 2>/dev/null");
        EXPECT_EQ(std::tuple(status, output), std::tuple(expected.status, expected.output));
    }
}

// Each staging file is made as its transfer starts, and an interrupt removes every one.
TEST(KestlyDownloadCommandTests, AnInterruptLeavesNoStagingFileAndTheOldFiles) {
    LoopbackHTTPServer server([&server](httplib::Server& http) {
        http.Get("/.*", [&server](const httplib::Request&, httplib::Response& response) {
            response.set_chunked_content_provider("text/plain", [&server](size_t, httplib::DataSink& sink) {
                return sink.write("new", 3) && !server.pause(10s) && (sink.done(), true);
            });
        });
    });
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        const TemporaryDirectory folder;
        const std::string kept = folder.writeFile("u0", "old");
        std::string command =
            "exec >/dev/null " + shellQuoted(kestlyProgram()) + " download --workers 4 -d " + shellQuoted(folder.path());
        for (int i = 0; i < 20; ++i) command += " " + server.url("/u" + std::to_string(i));
        const pid_t child = fork();
        if (child == 0) {  // only what is safe after fork in a threaded process
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(127);
        }
        const auto staging = [&] {  // the folder holds "u0" besides the staging files
            return std::distance(fs::directory_iterator(folder.path()), {}) - 1;
        };
        for (int tries = 0; staging() < 4 && tries < 1000; ++tries) std::this_thread::sleep_for(10ms);
        EXPECT_EQ(staging(), 4) << "one per transfer under way";
        kill(child, signal);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 128 + signal);
        EXPECT_EQ(std::tuple(staging(), readWholeFile(kept)), std::tuple(0, "old"));
    }
}

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
    for (const auto& [arguments, expected] : runs) EXPECT_EQ(runKestly(arguments + " 2>/dev/null").status, expected) << arguments;
    // The library's reasons go to its log file; kestly says it in its own words.
    const std::string bad = folder.writeFile("bad.json", "{");
    EXPECT_EQ(runKestly("manifest " + shellQuoted(bad) + " 2>&1 >/dev/null").output, "kestly: " + bad + ": not a valid manifest (-v shows what the library found)\n");
}

TEST(KestlyWatchCommand, PrintsEventsTakesCommandsInOrderAndExitsAsDocumented) {
    const TemporaryDirectory folder;
    const std::string root = folder.makeFolder("root");
    folder.writeFiles({"root/a.wav", "root/x -> y.wav", "root/\xff.wav"});
    folder.writeFile("root/keep.wav", "kept");
    const std::string caches = " --primary-cache " + shellQuoted(folder / "p.sqlite") + " --secondary-cache " +
                               shellQuoted(folder / "s.sqlite");
    auto watch = [&](const std::string& arguments, const std::string& input) {
        std::ofstream(folder / "input") << input;
        return runKestly("watch " + arguments + caches + " <" + shellQuoted(folder / "input") + " 2>" + shellQuoted(folder / "errors"));
    };
    // The three lines of an action that runs to completion.
    auto completed = [](const std::string& op, const std::string& paths) {
        const std::string action = "action " + op;
        return action + " Pending " + paths + "\n" + action + " Running " + paths + "\n" + action + " Completed " + paths + "\n";
    };
    auto base64 = [&](const std::string& text) {  // from the system's own tool
        return std::system(("printf %s " + shellQuoted(text) + " | base64 -w0 >" + shellQuoted(folder / "b64")).c_str()) ? "" : readWholeFile(folder / "b64");
    };
    const std::string from = base64(root + "/\xff.wav"), to = base64(root + "/\xfe.wav"), stopped = R"({"event":"FileManagerStopped","type":2})";
    std::string bytesMoved;  // the JSON lines of a move between two names that are not UTF-8
    for (const auto& [status, code] : {std::pair("Pending", "2"), {"Running", "3"}, {"Completed", "7"}})
        bytesMoved += R"({"event":"ActionStatusChanged","type":11,"op":"move","from":")" + root + "/\uFFFD.wav\",\"fromBytes\":\"" + from +
                      R"(","to":")" + root + "/\uFFFD.wav\",\"toBytes\":\"" + to + R"(","status":")" + status + R"(","statusCode":)" + code + "}\n";
    // Only -v shows the library's lines; kestly's own errors are looked for.
    struct Case { const char* name; std::string arguments, input; int status; std::string output, error = ""; };
    const Case cases[] = {
        {"missing root", shellQuoted(folder / "missing"), "", 3, "", "kestly: " + (folder / "missing") + ": no such folder\n"},
        {"a file for a root", shellQuoted(root + "/keep.wav"), "stop\n", 3, "", "kestly: " + root + "/keep.wav: not a folder\n"},
        // The mkdir is queued first and must run first, though the queue hands out the newest first.
        {"commands in order", shellQuoted(root),
         "mkdir '" + root + "/D: x'\nmove " + root + "/a.wav '" + root + "/D: x/a.wav'\nstop\n", 0,
         completed("mkdir", "'" + root + "/D: x'") + completed("move", root + "/a.wav -> '" + root + "/D: x/a.wav'") + "stopped\n"},
        {"a JSON path under the wrong key, or holding NUL", shellQuoted(root) + " --json",
         R"({"op": "move", "path": ")" + root + R"(/D/a.wav", "to": ")" + root + "/b.wav\"}\n" R"({"op": "move", "from": ")" + root +
             R"(/x -> y.wav", "to": ")" + root + "/keep.wav\\u0000.bak\"}\nstop\n", 0, stopped + "\n"},
        {"a move named by its bytes", shellQuoted(root) + " --json",
         R"({"op": "move", "fromBytes": ")" + from + R"(", "toBytes": ")" + to + "\"}\nstop\n", 0, bytesMoved + stopped + "\n"},
        // A path holding " -> " or a control character is printed quoted, and read back so.
        {"quoted paths, -v", shellQuoted(root) + " -v", "move " + root + "/'x -> y.wav' " + root + "/$'a\\nb'.wav\nstop\n", 0,
         completed("move", "'" + root + "/x -> y.wav' -> '" + root + "/a'$'\\n''b.wav'") + "stopped\n"},
        {"no root", "", "", 2, ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        auto run = watch(test.arguments, test.input);
        EXPECT_EQ(run.status, test.status);
        const std::string errors = readWholeFile(folder / "errors");
        EXPECT_TRUE(errors.find(test.error) != std::string::npos && (errors.find("] File manager loop completed\n") != std::string::npos) == test.arguments.ends_with(" -v")) << errors;
        // Commands may be queued before the ready line or after it, and a stop before it leaves
        // it out: it is checked on its own.
        const std::string ready = test.arguments.ends_with("--json") ? R"({"event":"FileManagerReady","type":1})" "\n" : "ready\n";
        const size_t readyAt = run.output.find(ready);
        if (test.status == 2) { EXPECT_EQ(readyAt, std::string::npos); }
        if (readyAt != std::string::npos) run.output.erase(readyAt, ready.size());
        EXPECT_EQ(run.output, test.output);
    }
    // On a terminal kestly says what it does, unless -q.
    for (const std::string quiet : {"", "-q "}) {
        const std::string watching = "echo stop | " + shellQuoted(kestlyProgram()) + " watch " + quiet + shellQuoted(root) + caches;
        EXPECT_EQ(std::system(("script -qfec " + shellQuoted(watching) + " /dev/null >" + shellQuoted(folder / "tty")).c_str()), 0);
        EXPECT_EQ(readWholeFile(folder / "tty").find("kestly: watching") != std::string::npos, quiet.empty());
    }
    EXPECT_TRUE(fs::exists(root + "/D: x/a.wav") && fs::exists(root + "/\xfe.wav") && fs::exists(root + "/a\nb.wav"));
    EXPECT_FALSE(fs::exists(root + "/b.wav"));
    EXPECT_EQ(readWholeFile(root + "/keep.wav"), "kept");
}

}  // namespace
