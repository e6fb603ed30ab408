// Moves and copies on real files: one item under two names, copies that land whole or not at
// all, paths holding NUL, and the staging names that interrupted copies leave behind.

#include "CoreKestly/Platform/DCIFileOperations.h"

#include "support/Testing.h"

#include <sys/mount.h>
#include <sys/resource.h>

#include <csignal>

namespace {

using namespace DCIFileOperations;
using Operation = std::optional<DCIError> (*)(const std::string&, const std::string&);

// Every item under `folder`, sorted: a folder with a "/" after it, a file with "=" and its text.
std::vector<std::string> listing(const fs::path& folder) {
    std::vector<std::string> items;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string path = fs::relative(entry.path(), folder).string();
        items.push_back(entry.is_directory() ? path + "/" : entry.is_regular_file() ? path + "=" + readWholeFile(entry.path()) : path);
    }
    std::ranges::sort(items);
    return items;
}

// Runs `body` in a child process with a mount namespace of its own, in which the folder
// `mountPoint` shows `target`; answers the status `body` exits with, or nothing when this
// machine allows no such namespace.
std::optional<int> withBindMount(const std::string& target, const std::string& mountPoint, const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        const bool mounted = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                             mount(target.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr) == 0;
        _exit(mounted ? body() : 255);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) == 255) return std::nullopt;
    return WEXITSTATUS(status);
}

TEST(DCIFileOperationsTests, NothingIsLostAndACopyLandsWholeOrNotAtAll) {
    const TemporaryDirectory folder;
    folder.writeFile("src/x.wav", "x");
    folder.writeFile("src/sub/y.wav", "y");
    folder.writeFile("odd/a.wav", "a");
    ASSERT_EQ(link((folder / "src/x.wav").c_str(), (folder / "src/h.wav").c_str()), 0);
    ASSERT_EQ(mkfifo((folder / "odd/pipe").c_str(), 0600), 0);
    folder.makeFolder("alias");
    const auto before = listing(folder.path());

    const Operation move = &moveItem, copy = &copyItem, makeFolder = [](const std::string& path, const std::string&) {
        return createDirectory(path);
    };
    // `mounted` names the folder that `alias` shows during the operation, through a mount.
    struct Case { const char* name; Operation operation; std::string from, to; int error; std::vector<std::string> added; const char* mounted = nullptr; };
    using namespace std::string_literals;
    const Case cases[] = {
        {"a file copied", copy, "src/x.wav", "copy.wav", 0, {"copy.wav=x"}},
        {"a folder copied with a FIFO in it", copy, "odd", "copy", ENOTSUP, {}},
        {"a folder copied into itself", copy, "src", "src/sub/copy", EINVAL, {}},
        {"a move to a path holding NUL", move, "src/sub/y.wav", "src/x.wav\0.bak"s, EINVAL, {}},
        {"a copy from a path holding NUL", copy, "src/x.wav\0"s, "copy.wav", EINVAL, {}},
        {"a folder made at a path holding NUL", makeFolder, "new\0/deeper"s, "", EINVAL, {}},
        {"a move onto itself through another mount", move, "alias/x.wav", "src/x.wav", 0, {}, "src"},
        {"a hard link moved onto its other name through another mount", move, "alias/h.wav", "src/x.wav", 0, {}, "src"},
        {"a folder copied into itself through another mount", copy, "src", "alias/sub/copy", EINVAL, {}, "src"},
    };
    int skipped = 0;
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        const auto run = [&] {
            const auto error = test.operation(folder / test.from, test.to.empty() ? "" : folder / test.to);
            return error ? static_cast<int>(error->code()) : 0;
        };
        const auto error = test.mounted ? withBindMount(folder / test.mounted, folder / "alias", run) : run();
        skipped += !error;
        EXPECT_EQ(error.value_or(test.error), test.error);
        auto expected = before;
        expected.insert(expected.end(), test.added.begin(), test.added.end());
        std::ranges::sort(expected);
        EXPECT_EQ(listing(folder.path()), expected);
        for (const auto& item : test.added) fs::remove_all(folder / item.substr(0, item.find('=')));
    }
    if (skipped) GTEST_SKIP() << skipped << " cases need a mount namespace of their own";
}

TEST(DCIFileOperationsTests, ACopyCutShortLeavesOnlyAStagingItemOfAnEndedProcess) {
    const TemporaryDirectory folder;
    const std::string source = folder.writeFile("big.wav", std::string(1 << 20, 'b'));
    const pid_t child = fork();
    if (child == 0) {
        // Writing past this limit ends the process with SIGXFSZ, half way through the copy.
        const rlimit limit{64 << 10, 64 << 10};
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(copyItem(source, folder / "copy.wav") ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    const auto items = listing(folder.path());  // the staging item first, then big.wav; no copy.wav
    ASSERT_EQ(items.size(), 2u);
    const std::string left = items[0].substr(0, items[0].find('='));
    EXPECT_TRUE(left.starts_with(".kestly-staging-" + std::to_string(child) + "-")) << left;

    const std::string ours = ".kestly-staging-" + std::to_string(getpid());
    const std::tuple<std::string, bool, bool> cases[] = {  // name, staging, abandoned
        {left, true, true}, {ours + "-0", true, false}, {ours + "-18446744073709551615", true, false},
        {".kestly-staging-1-7", true, false}, {".kestly-staging-0-7", false, false},
        {".kestly-staging-4294967297-0", false, false}, {".kestly-staging--1-0", false, false},
        {ours, false, false}, {ours + "-", false, false}, {ours + "-01", false, false}, {ours + "-1x", false, false},
        {".kestly-staging-0" + std::to_string(child) + "-0", false, false}, {"kick.wav", false, false},
    };
    for (const auto& [name, staging, abandoned] : cases) {
        EXPECT_EQ(std::pair(isStagingName(name), isAbandonedStagingName(name)), std::pair(staging, abandoned)) << name;
    }
}

}  // namespace
