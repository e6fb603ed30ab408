#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr const char* kSHA256OfABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// Sets the modification time of `path` (not following a link) to `seconds` and `nanoseconds`.
void setModificationTime(const std::string& path, time_t seconds, long nanoseconds = 0) {
    const timespec times[2] = {{seconds, 0}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

time_t statusChangeTime(const std::string& path) {
    struct stat status;
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_ctim.tv_sec;
}

// A tree in which wav files are of interest, built through queries that the test keeps alive.
class DCIFileObjectTests : public ::testing::Test {
protected:
    std::shared_ptr<DCIFolderObject> buildTree(const std::string& path) {
        return DCIFolderObject::initWithPath(path, nullptr, queries);
    }
    std::shared_ptr<DCIFolderObject> buildTree() { return buildTree(directory.path().string()); }

    TemporaryDirectory directory;
    std::shared_ptr<DCIFileQueries> queries =
        std::make_shared<DCICachedFileQueries>(DCIFileKinds{{}, {}, {"wav"}}, nullptr, nullptr);
};

TEST_F(DCIFileObjectTests, IsMadeOnlyForAFileThatCanBeOpened) {
    directory.writeFile("kick.wav", "abc");
    fs::create_symlink(directory / "missing.wav", directory / "dangling.wav");
    const auto folder = buildTree();
    ASSERT_NE(folder, nullptr);

    const auto file = DCIFileObject::initWithFileName("kick.wav", folder);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->name(), "kick.wav");
    EXPECT_EQ(file->parent(), folder);

    EXPECT_EQ(DCIFileObject::initWithFileName("missing.wav", folder), nullptr);
    EXPECT_EQ(DCIFileObject::initWithFileName("dangling.wav", folder), nullptr);
    EXPECT_EQ(DCIFileObject::initWithFileName("kick.wav", nullptr), nullptr);
}

TEST_F(DCIFileObjectTests, AnUnreadableFileGivesNoObject) {
    if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind the superuser";
    const std::string path = directory.writeFile("locked.wav", "abc");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    EXPECT_EQ(DCIFileObject::initWithFileName("locked.wav", buildTree()), nullptr);
}

TEST_F(DCIFileObjectTests, OnlyARegularFileBecomesAFileObject) {
    // None of these could ever be hashed; opening a FIFO without a writer could block.
    ASSERT_EQ(mkfifo((directory / "pipe.wav").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", directory / "null.wav");
    directory.makeFolder("folder.wav");
    const auto folder = buildTree();
    for (const char* name : {"pipe.wav", "null.wav", "folder.wav"}) {
        EXPECT_EQ(DCIFileObject::initWithFileName(name, folder), nullptr) << name;
    }
}

TEST_F(DCIFileObjectTests, DatesAreTheWholeSecondsOfTheModificationAndStatusChangeTimes) {
    const std::string path = directory.writeFile("kick.wav", "abc");
    // 2001, 1969 (rounded down) and 2300, past what 64-bit nanoseconds reach. Setting the
    // modification time also stamps the status-change time with now, a visibly different clock.
    for (const time_t seconds : {1'000'000'000L, -1L, 10'413'792'000L}) {
        setModificationTime(path, seconds, 700'000'000);
        const auto file = DCIFileObject::initWithFileName("kick.wav", buildTree());
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), static_cast<double>(seconds));
        EXPECT_EQ(file->createdDate().timeIntervalSince1970(), static_cast<double>(statusChangeTime(path)));
    }
}

TEST_F(DCIFileObjectTests, UpdateAttributesRereadsTheDatesAndKeepsThemWhenTheFileIsGone) {
    const std::string path = directory.writeFile("kick.wav", "abc");
    setModificationTime(path, 1'000'000'000);
    const auto file = DCIFileObject::initWithFileName("kick.wav", buildTree());
    ASSERT_NE(file, nullptr);

    setModificationTime(path, 1'200'000'000);
    EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), 1'000'000'000.0) << "dates are read only when asked";
    EXPECT_TRUE(file->updateAttributes());
    EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), 1'200'000'000.0);

    const DCIDate created = file->createdDate();
    fs::remove(path);
    EXPECT_FALSE(file->updateAttributes());
    EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), 1'200'000'000.0);
    EXPECT_EQ(file->createdDate(), created);
}

TEST_F(DCIFileObjectTests, ALinkHasTheDatesOfItsTarget) {
    const std::string target = directory.writeFile("samples/kick.wav", "abc");
    setModificationTime(target, 1'000'000'000);
    fs::create_symlink(target, directory / "link.wav");
    const auto file = DCIFileObject::initWithFileName("link.wav", buildTree());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), 1'000'000'000.0);
    EXPECT_EQ(file->absolutePath(), directory / "link.wav");
}

TEST_F(DCIFileObjectTests, PathsFollowTheTree) {
    directory.writeFile("top.wav", "abc");
    directory.writeFile("a/b/deep.wav", "abc");
    const auto root = buildTree();
    ASSERT_NE(root, nullptr);
    const auto top = root->files()->at("top.wav");
    const auto b = root->subFolders()->at("a")->subFolders()->at("b");
    const auto deep = b->files()->at("deep.wav");

    EXPECT_EQ(top->absolutePath(), directory / "top.wav");
    EXPECT_EQ(top->description(), top->absolutePath());
    EXPECT_EQ(top->relativePath(), "top.wav");
    EXPECT_EQ(deep->absolutePath(), directory / "a/b/deep.wav");
    EXPECT_EQ(deep->relativePath(), "a/b/deep.wav");

    EXPECT_EQ(deep->pathRelativeToFolder(b), "deep.wav");
    EXPECT_EQ(deep->pathRelativeToFolder(root), "a/b/deep.wav");
    EXPECT_EQ(top->pathRelativeToFolder(b), "../../top.wav");
    EXPECT_EQ(top->pathRelativeToFolder(nullptr), std::nullopt);

    TemporaryDirectory elsewhere;
    const auto unrelated = DCIFolderObject::initWithPath(elsewhere.path().string(), nullptr, queries);
    EXPECT_EQ(top->pathRelativeToFolder(unrelated), std::nullopt);
}

TEST_F(DCIFileObjectTests, AFileWhoseFolderIsGoneKeepsItsPathAndIdentity) {
    directory.writeFile("a/kick.wav", "abc");
    auto root = buildTree();
    const auto file = root->subFolders()->at("a")->files()->at("kick.wav");
    const uint64_t identity = file->hash();
    root.reset();

    EXPECT_EQ(file->parent(), nullptr);
    EXPECT_EQ(file->absolutePath(), directory / "a/kick.wav");
    EXPECT_EQ(file->hash(), identity);
    EXPECT_EQ(file->relativePath(), "kick.wav");
    EXPECT_EQ(file->pathRelativeToFolder(buildTree()), std::nullopt);
}

TEST_F(DCIFileObjectTests, RenamingAFolderAboveLeavesTheObjectAsItWas) {
    directory.writeFile("a/kick.wav", "abc");
    const auto root = buildTree();
    const auto file = root->subFolders()->at("a")->files()->at("kick.wav");
    const uint64_t identity = file->hash();

    fs::rename(directory / "a", directory / "renamed");
    EXPECT_EQ(file->absolutePath(), directory / "a/kick.wav");
    EXPECT_EQ(file->hash(), identity);
    EXPECT_FALSE(file->isEqual(*buildTree()->subFolders()->at("renamed")->files()->at("kick.wav")));
}

TEST_F(DCIFileObjectTests, IdentityIsTheAbsolutePath) {
    directory.writeFile("kick.wav", "abc");
    directory.writeFile("snare.wav", "abc");
    const auto first = buildTree();
    const auto kick = first->files()->at("kick.wav");

    directory.writeFile("kick.wav", "different content");
    const auto second = buildTree();
    const auto kickAgain = second->files()->at("kick.wav");
    EXPECT_NE(kick, kickAgain);
    EXPECT_TRUE(kick->isEqual(*kickAgain));
    EXPECT_TRUE(kickAgain->isEqual(*kick));
    EXPECT_EQ(kick->hash(), kickAgain->hash());

    const auto snare = first->files()->at("snare.wav");
    EXPECT_FALSE(kick->isEqual(*snare));
    EXPECT_NE(kick->hash(), snare->hash());

    // A folder at the file's path is something else.
    const auto folderAtFilePath = DCIFolderObject::initWithPath(kick->absolutePath(), nullptr, queries);
    ASSERT_NE(folderAtFilePath, nullptr);
    EXPECT_FALSE(kick->isEqual(*folderAtFilePath));
    EXPECT_FALSE(folderAtFilePath->isEqual(*kick));

    const DCIFileSet both{kick, kickAgain, snare};
    EXPECT_EQ(both.size(), 2u);
    EXPECT_TRUE(both.contains(kickAgain));
}

TEST_F(DCIFileObjectTests, FileHashIsComputedOnFirstUseAndThenKept) {
    const std::string path = directory.writeFile("kick.wav", "abc");
    const auto file = DCIFileObject::initWithFileName("kick.wav", buildTree());
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->fileHash(), kSHA256OfABC);

    fs::remove(path);
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a stored hash is not recomputed";

    file->setFileHash(std::nullopt);
    EXPECT_EQ(file->fileHash(), std::nullopt);
    directory.writeFile("kick.wav", "abc");
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a failed computation is tried again";

    file->setFileHash(std::string(64, 'f'));
    EXPECT_EQ(file->fileHash(), std::string(64, 'f'));
}

TEST_F(DCIFileObjectTests, ThreadsThatAllAskForAMissingHashAllGetIt) {
    directory.writeFile("kick.wav", "abc");
    const auto file = DCIFileObject::initWithFileName("kick.wav", buildTree());
    ASSERT_NE(file, nullptr);
    std::vector<std::optional<std::string>> answers(8);
    {
        std::vector<std::jthread> threads;
        for (auto& answer : answers) threads.emplace_back([&] { answer = file->fileHash(); });
    }
    for (const auto& answer : answers) EXPECT_EQ(answer, kSHA256OfABC);
}

}  // namespace
