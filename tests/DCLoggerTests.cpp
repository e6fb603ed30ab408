#include "CoreKestly/DCLog/DCLogger.h"
#include "support/LogReading.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

const std::regex kStampedEntry(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}: (.*)$)");

// Sends standard error to a file for the object's lifetime.
class CapturedStandardError {
public:
    explicit CapturedStandardError(const std::string& path) : saved_(dup(STDERR_FILENO)) {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
    }
    ~CapturedStandardError() {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

// What DCLogInfo and DCLogError write to standard error and to the shared log file.
struct Logged {
    std::string standardError;
    std::string logFile;
};

template <class Log>
Logged capture(const TemporaryDirectory& folder, Log&& log) {
    const LogSince logged;
    const std::string errPath = folder / "stderr.txt";
    {
        CapturedStandardError captured(errPath);
        log();
    }
    return {readWholeFile(errPath), logged.text()};
}

}  // namespace

TEST(DCLogger, StartingALoggerRotatesOneGeneration) {
    TemporaryDirectory folder;
    folder.writeFile("com.kestly.previous.log", "two runs ago\n");
    folder.writeFile("com.kestly.current.log", "the last run\n");
    DCLogger logger(folder.path().string());
    EXPECT_EQ(logger.currentLogFileURL(), folder / "com.kestly.current.log");
    EXPECT_EQ(readWholeFile(folder / "com.kestly.previous.log"), "the last run\n");
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

TEST(DCLogger, AFirstRunMakesAPrivateFolderAndLog) {
    TemporaryDirectory parent;
    const std::string folder = parent / "kestly";
    DCLogger logger(folder);
    EXPECT_FALSE(std::filesystem::exists(logger.previousLogFileURL()));
    struct stat status {};
    ASSERT_EQ(stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    ASSERT_EQ(stat(logger.currentLogFileURL().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST(DCLogger, ThePerUserTemporaryDirectory) {
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"/var/tmp/mine", "/run/user/7", "/var/tmp/mine"},
        {"", "/run/user/7", "/run/user/7/kestly"},
        {nullptr, nullptr, "/tmp/kestly-" + std::to_string(geteuid())}};
    for (const auto& [tmpdir, runtime, expected] : cases) {
        ScopedEnvironment temporary("TMPDIR", tmpdir), xdg("XDG_RUNTIME_DIR", runtime);
        EXPECT_EQ(DCLogger::perUserTemporaryDirectory(), expected);
    }
}

TEST(DCLogger, ALinkWhereTheLogGoesIsNeverFollowed) {
    TemporaryDirectory folder;
    const std::string victim = folder.writeFile("victim", "precious\n");
    // A folder in the way keeps the rotation from moving the link aside.
    folder.writeFile("com.kestly.previous.log/keep", "");
    std::filesystem::create_symlink(victim, folder / "com.kestly.current.log");
    {
        DCLogger logger(folder.path().string());
        EXPECT_EQ(logger.logFile(), -1);
        logger.log("must not land in the victim");
    }
    EXPECT_EQ(readWholeFile(victim), "precious\n");
}

TEST(DCLogger, EntriesOfConcurrentThreadsStayWholeAndInEachThreadsOrder) {
    TemporaryDirectory folder;
    constexpr int kPerThread = 500;
    {
        DCLogger logger(folder.path().string());
        auto writer = [&logger](char tag) {
            for (int i = 0; i < kPerThread; ++i) logger.log(std::string(1, tag) + std::to_string(i) + std::string(300, tag));
        };
        std::thread a(writer, 'a'), b(writer, 'b');
        a.join();
        b.join();
    }
    int next[2] = {0, 0};
    for (const auto& line : linesOf(readWholeFile(folder / "com.kestly.current.log"))) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, kStampedEntry)) << line;
        const std::string message = match[1];
        const char tag = message[0];
        ASSERT_TRUE(tag == 'a' || tag == 'b');
        const int index = std::stoi(message.substr(1));
        EXPECT_EQ(index, next[tag - 'a']++);
        EXPECT_EQ(message, std::string(1, tag) + std::to_string(index) + std::string(300, tag));
    }
    EXPECT_EQ(next[0], kPerThread);
    EXPECT_EQ(next[1], kPerThread);
}

TEST(DCLogger, EntriesGoToTheLogFileSetAtTheTimeTheyAreWritten) {
    TemporaryDirectory folder;
    DCLogger logger(folder.path().string());
    logger.log("to the current log");
    logger.flush();

    const std::string other = folder / "other.log";
    const int file = open(other.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    logger.setLogFile(file);
    logger.log("to the other log");
    logger.flush();
    logger.setLogFile(-1);
    logger.log("to nowhere");
    logger.flush();

    EXPECT_TRUE(readWholeFile(logger.currentLogFileURL()).ends_with(": to the current log\n"));
    const auto lines = linesOf(readWholeFile(other));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(": to the other log"));
    // The logger closed the descriptor it was given when it was replaced.
    EXPECT_EQ(fcntl(file, F_GETFD), -1);
}

TEST(DCLogger, AFolderThatIsNotARealOneOfOurOwnGetsNoLogAndOneWarning) {
    TemporaryDirectory folder;
    const std::string elsewhere = folder.makeFolder("elsewhere");
    std::filesystem::create_directory_symlink(elsewhere, folder / "link");
    for (const std::string& candidate :
         {std::string("/proc/kestly-no-such-folder"), folder / "link", folder.writeFile("file", "")}) {
        const std::string errPath = folder / "stderr.txt";
        {
            CapturedStandardError captured(errPath);
            DCLogger logger(candidate);
            EXPECT_EQ(logger.logFile(), -1) << candidate;
            logger.log("goes nowhere");
            logger.log("nor here");
        }
        const auto warnings = linesOf(readWholeFile(errPath));
        ASSERT_EQ(warnings.size(), 1u) << candidate;
        EXPECT_NE(warnings[0].find(candidate), std::string::npos);
    }
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
}

TEST(DCLogger, AForkedChildLogsAndExits) {
    auto& logger = DCLogger::sharedLogger();
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
    logger.flush();
    const std::string log = readWholeFile(logger.currentLogFileURL());
    EXPECT_EQ(log.find(": from the child\n"), log.rfind(": from the child\n"));
    EXPECT_NE(log.find(": from the child\n"), std::string::npos);
    EXPECT_EQ(log.find(": before the fork\n"), log.rfind(": before the fork\n"));
}

TEST(DCLogInfo, IsSilencedOnlyByVerboseLoggingExactlyNo) {
    TemporaryDirectory folder;
    struct Case {
        const char* value;
        bool logs;
    };
    for (const Case& c : {Case{"no", false}, Case{nullptr, true}, Case{"NO", true}, Case{"yes", true}, Case{"", true}}) {
        ScopedEnvironment verbose("VERBOSE_LOGGING", c.value);
        const std::string marker = std::string("info marker ") + (c.value ? c.value : "unset");
        const Logged logged = capture(folder, [&] { DCLogInfo("%s %d", marker.c_str(), 17); });
        const std::string expected = marker + " 17";
        EXPECT_EQ(logged.standardError.find(expected) != std::string::npos, c.logs) << marker;
        EXPECT_EQ(logged.logFile.find(expected) != std::string::npos, c.logs) << marker;
    }
}

TEST(DCLogError, LogsWhateverVerboseLoggingSaysWithTheEchoOnOneLine) {
    TemporaryDirectory folder;
    ScopedEnvironment verbose("VERBOSE_LOGGING", "no");
    const Logged logged = capture(folder, [] { DCLogError("Not setting nil object for key %@", "sourcePath"); });

    const auto echo = linesOf(logged.standardError);
    ASSERT_EQ(echo.size(), 1u);
    // time, process name and ids, then the message
    EXPECT_TRUE(std::regex_match(echo[0], std::regex(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} \S+\[\d+:\d+\] )"
                                                     R"(Not setting nil object for key sourcePath$)")))
        << echo[0];
    const auto entries = linesOf(logged.logFile);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(entries[0].ends_with(": Not setting nil object for key sourcePath"));
}
