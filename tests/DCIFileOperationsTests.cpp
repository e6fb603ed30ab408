// Moves and copies on real files: one item under two names, copies that land whole or not at
// all, paths holding NUL, and the staging names that interrupted copies leave behind.

#include "CoreKestly/Platform/Files/DCIFileOperations.h"

#include "support/Testing.h"

#include <sys/mount.h>
#include <sys/resource.h>

#include <csignal>

namespace {

using namespace DCIFileOperations;

// Every item under `folder`, sorted: a folder with a "/" after it, a file with "=" and its text.
std::vector<std::string> listing(const fs::path& folder) {
    std::vector<std::string> items;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const std::string path = fs::relative(entry.path(), folder), file = entry.is_regular_file() ? "=" + readWholeFile(entry.path()) : "";
        items.push_back(path + (entry.is_directory() ? "/" : file));
    }
    std::ranges::sort(items);
    return items;
}

TEST(DCIFileOperationsTests, NothingIsLostAndNothingIsDoneWithAPathHoldingNUL) {
    const TemporaryDirectory folder;
    folder.writeFile("src/x.wav", "x");
    folder.writeFile("src/sub/y.wav", "y");
    folder.writeFile("odd/a.wav", "a");
    ASSERT_EQ(mkfifo((folder / "odd/pipe").c_str(), 0600), 0);
    const std::string alias = folder.makeFolder("alias");
    const auto before = listing(folder.path());
    // A mount namespace of this process's own keeps the bind mounts from the machine's.
    const bool mounts = unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;

    // `mounted`: the operation runs while `alias` shows `src` through a bind mount.
    enum Operation { move, copy };
    struct Case { const char* name; Operation operation; std::string from, to; int error; bool mounted = false; };
    using namespace std::string_literals;
    const Case cases[] = {
        {"a folder copied with a FIFO in it", copy, "odd", "copy", ENOTSUP},
        {"a move to a path holding NUL", move, "src/sub/y.wav", "src/x.wav\0.bak"s, EINVAL},
        {"a copy from a path holding NUL", copy, "src/x.wav\0"s, "copy.wav", EINVAL},
        {"a move onto itself through another mount", move, "alias/x.wav", "src/x.wav", 0, true},
        {"a folder copied into itself through another mount", copy, "src", "alias/sub/copy", EINVAL, true},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        if (test.mounted && !mounts) continue;
        ASSERT_TRUE(!test.mounted || mount((folder / "src").c_str(), alias.c_str(), nullptr, MS_BIND, nullptr) == 0);
        const auto error = (test.operation == copy ? copyItem : moveItem)(folder / test.from, folder / test.to);
        if (test.mounted) umount2(alias.c_str(), MNT_DETACH);
        EXPECT_EQ(error ? error->code() : 0, test.error);
        EXPECT_EQ(listing(folder.path()), before);
    }
    if (!mounts) GTEST_SKIP() << "the cases through another mount need a mount namespace of their own";
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
    auto items = listing(folder.path());  // the staging item first, then big.wav; no copy.wav
    ASSERT_EQ(items.size(), 2u);
    const std::string left = items[0].substr(0, items[0].find('='));
    EXPECT_TRUE(left.starts_with(".kestly-staging-" + std::to_string(child) + "-")) << left;
    EXPECT_FALSE(copyItem(source, folder / "copy.wav"));  // whole, and under its own name only
    items.push_back("copy.wav=" + readWholeFile(source));
    EXPECT_EQ(listing(folder.path()), items);

    const std::string ours = ".kestly-staging-" + std::to_string(getpid());
    const std::tuple<std::string, bool, bool> cases[] = {{left, true, true}, {ours + "-0", true, false},  // staging, abandoned
        {".kestly-staging-0-7", false, false}, {".kestly-staging-4294967297-0", false, false}, {".kestly-staging--1-0", false, false},
        {ours, false, false}, {ours + "-01", false, false}, {ours + "-1x", false, false}, {"kick.wav", false, false}};
    for (const auto& [name, staging, abandoned] : cases) {
        EXPECT_EQ(std::pair(isStagingName(name), isAbandonedStagingName(name)), std::pair(staging, abandoned)) << name;
    }
}

}  // namespace
