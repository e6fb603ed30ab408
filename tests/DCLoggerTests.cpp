#include "CoreKestly/DCLog/DCLogger.h"

#include "support/LogReading.h"
#include "support/Testing.h"

#include <regex>

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

const std::regex kStampedEntry(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}: (.*)$)");

unsigned permissionsOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

}  // namespace

TEST(DCLogger, AFirstRunMakesAPrivateFolderAndLogAndTheNextKeepsOneGeneration) {
    TemporaryDirectory parent;
    const std::string folder = parent / "kestly";
    {
        DCLogger first(folder);
        const bool previous = fs::exists(first.previousLogFileURL());
        EXPECT_EQ(std::tuple(permissionsOf(folder), permissionsOf(first.currentLogFileURL()), previous),
                  std::tuple(0700u, 0600u, false));
        first.log("the last run");  // written by the time the logger is gone
    }
    parent.writeFile("kestly/com.kestly.previous.log", "two runs ago\n");
    DCLogger logger(folder);
    EXPECT_EQ(logger.currentLogFileURL(), folder + "/com.kestly.current.log");
    EXPECT_TRUE(readWholeFile(folder + "/com.kestly.previous.log").ends_with(": the last run\n"));
    // A message of several lines is one entry, stamped once.
    logger.log("first entry\nsecond line");
    logger.log("after");
    logger.flush();
    const auto lines = linesOf(readWholeFile(logger.currentLogFileURL()));
    ASSERT_EQ(lines.size(), 3u);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, kStampedEntry)) << lines[0];
    EXPECT_EQ(match[1], "first entry");
    EXPECT_EQ(lines[1], "second line");
    EXPECT_TRUE(std::regex_match(lines[2], kStampedEntry));
}

// No log is made in a folder that is not a real one of our own, which is said once, nor through
// a link in the log's place; a folder in the way keeps the rotation from moving that link aside.
TEST(DCLogger, NoLogWhereTheFolderOrTheLogIsNotARealOneOfOurOwn) {
    TemporaryDirectory folder;
    const std::string elsewhere = folder.makeFolder("elsewhere"), victim = folder.writeFile("victim", "precious\n");
    fs::create_directory_symlink(elsewhere, folder / "link");
    folder.writeFile("linked/com.kestly.previous.log/keep", "");
    fs::create_symlink(victim, folder / "linked/com.kestly.current.log");
    for (const auto& [candidate, warnings] : {std::pair{std::string("/proc/kestly-no-such-folder"), 1u},
                                              {folder / "link", 1u}, {folder.writeFile("file", ""), 1u}, {folder / "linked", 0u}}) {
        testing::internal::CaptureStderr();
        {
            DCLogger logger(candidate);
            EXPECT_EQ(logger.logFile(), -1) << candidate;
            logger.log("goes nowhere");
            logger.log("nor here");
        }
        const auto lines = linesOf(testing::internal::GetCapturedStderr());
        EXPECT_EQ(lines.size(), warnings) << candidate;
        EXPECT_TRUE(lines.empty() || lines[0].find(candidate) != std::string::npos) << lines[0];
    }
    EXPECT_TRUE(fs::is_empty(elsewhere));
    EXPECT_EQ(readWholeFile(victim), "precious\n");
}

TEST(DCLogger, EntriesOfConcurrentThreadsStayWholeAndInEachThreadsOrder) {
    TemporaryDirectory folder;
    constexpr int kPerThread = 500;
    const auto entry = [](char tag, int index) { return tag + std::to_string(index) + std::string(300, tag); };
    {
        DCLogger logger(folder.path().string());
        startThreads(2, [&](int writer) {
            for (int i = 0; i < kPerThread; ++i) logger.log(entry(char('a' + writer), i));
        });
    }
    int next[2] = {0, 0};
    for (const auto& line : linesOf(readWholeFile(folder / "com.kestly.current.log"))) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, kStampedEntry)) << line;
        const char tag = match.str(1)[0];
        ASSERT_TRUE(tag == 'a' || tag == 'b') << line;
        EXPECT_EQ(match[1], entry(tag, next[tag - 'a']++));
    }
    EXPECT_EQ(next[0], kPerThread);
    EXPECT_EQ(next[1], kPerThread);
}

TEST(DCLogger, AForkedChildLogsAndExits) {
    const LogSince log;
    DCLogError("before the fork");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(10);  // a hung child dies of the alarm
        DCLogError("from the child");
        std::exit(0);  // the exit handler flushes the shared logger
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child hung or failed";
    // Each once: the child wrote its own entry and none of its parent's.
    EXPECT_EQ(log.count("from the child"), 1u);
    EXPECT_EQ(log.count("before the fork"), 1u);
}

// Every line reaches the log file, unless it is information and VERBOSE_LOGGING is exactly "no";
// it is echoed, when at or above the minimum level, to the sink or else to standard error.
TEST(DCLogger, LinesReachTheFileAsVerboseLoggingSaysAndTheEchoAsTheLevelSays) {
    using enum DCLogLevel;
    struct Case { const char* verbose; DCLogLevel level, minimum; bool sink, logs, echoes; };
    const Case cases[] = {{"no", info, info, 0, 0, 0}, {nullptr, info, info, 0, 1, 1}, {"NO", info, info, 0, 1, 1}, {"yes", info, info, 0, 1, 1},
                          {"", info, info, 0, 1, 1}, {"no", error, info, 0, 1, 1}, {nullptr, info, error, 0, 1, 0}, {nullptr, info, info, 1, 1, 1},
                          {nullptr, info, error, 1, 1, 0}, {"no", error, error, 1, 1, 1}};
    for (const Case& c : cases) {
        ScopedEnvironment verbose("VERBOSE_LOGGING", c.verbose);
        const std::string marker = "marker " + std::to_string(&c - cases);
        SCOPED_TRACE(marker);
        std::vector<std::pair<DCLogLevel, std::string>> sunk;
        DCLogSetSink(c.minimum, c.sink ? DCLogSink([&](auto... line) { sunk.emplace_back(line...); }) : nullptr);
        const LogSince log;
        testing::internal::CaptureStderr();
        c.level == error ? DCLogError("%@ %d", marker.c_str(), 17) : DCLogInfo("%@ %d", marker.c_str(), 17);
        const std::string echo = testing::internal::GetCapturedStderr();
        DCLogSetSink(info, nullptr);
        EXPECT_EQ(log.count(marker + " 17"), c.logs ? 1u : 0u);
        // Echoed on standard error as one line: time, process name and ids, then the message.
        const std::regex echoed(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \S+\[\d+:\d+\] )" + marker + " 17\n");
        EXPECT_TRUE(c.echoes && !c.sink ? std::regex_match(echo, echoed) : echo.empty()) << echo;
        EXPECT_EQ(sunk, (c.echoes && c.sink ? decltype(sunk){{c.level, marker + " 17"}} : decltype(sunk){}));
    }
}

// A sink that logs, replaces itself and throws, while another thread runs it too: nothing
// deadlocks, and what it logs goes to the log file alone.
TEST(DCLogger, ASinkThatLogsReplacesItselfAndThrowsHurtsNothing) {
    const LogSince log;
    testing::internal::CaptureStderr();
    DCLogSetSink(DCLogLevel::info, [](DCLogLevel, const std::string& message) {
        DCLogError("inside the sink, after %@", message);
        if (message == "replace") DCLogSetSink(DCLogLevel::info, [](DCLogLevel, const std::string&) { throw 1; });
        throw std::runtime_error("the host's bug");
    });
    startThreads(2, [](int t) { for (int i = 0; i < 100; ++i) DCLogError("%@", t == 0 && i == 50 ? "replace" : DCIFormat("t%d", t)); });
    DCLogSetSink(DCLogLevel::info, nullptr);
    EXPECT_EQ(std::tuple(testing::internal::GetCapturedStderr(), log.count("inside the sink, after t0"), log.count("inside the sink, after replace")),
              std::tuple("", size_t{50}, size_t{1}));
}

// The first line makes the shared logger, which tells the sink it refuses the folder; what the
// sink logs then must not ask for the logger in the making. A fresh process has no logger yet.
TEST(DCLoggerDeathTest, ASinkThatLogsAsTheFirstLoggerRefusesItsFolderHurtsNothing) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto sinkThatLogs = [](auto...) { DCLogError("from the sink"); };
    EXPECT_EXIT(fs::remove(std::getenv("TMPDIR")); setenv("TMPDIR", "/proc/kestly-none", 1); DCLogSetSink(DCLogLevel::error, sinkThatLogs);
                DCLogInfo("first"); std::exit(0), testing::ExitedWithCode(0), "");
}
