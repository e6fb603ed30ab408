#include "CoreKestly/FileSystem/DCICachedFileQueries.h"
#include "CoreKestly/FileSystem/DCIFileObject.h"
#include "CoreKestly/FileSystem/DCIFolderObject.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

// A tree in which wav files are of interest, built through queries that the test keeps alive.
class DCIFileObjectTests : public ::testing::Test {
protected:
    std::shared_ptr<DCIFolderObject> buildTree() {
        return DCIFolderObject::initWithPath(directory.path().string(), nullptr, queries);
    }
    std::shared_ptr<DCIFileObject> fileNamed(const std::string& name) {
        return DCIFileObject::initWithFileName(name, buildTree());
    }

    TemporaryDirectory directory;
    std::shared_ptr<DCIFileQueries> queries =
        std::make_shared<DCICachedFileQueries>(DCIFileKinds{{}, {}, {"wav"}}, nullptr, nullptr);
};

// None but the regular file could ever be hashed; opening a FIFO without a writer could block.
TEST_F(DCIFileObjectTests, IsMadeOnlyForARegularFile) {
    directory.writeFile("kick.wav", "abc");
    fs::create_symlink(directory / "missing.wav", directory / "dangling.wav");
    ASSERT_EQ(mkfifo((directory / "pipe.wav").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", directory / "null.wav");
    directory.makeFolder("folder.wav");
    ASSERT_NE(fileNamed("kick.wav"), nullptr);
    for (const char* name : {"missing.wav", "dangling.wav", "pipe.wav", "null.wav", "folder.wav"}) {
        EXPECT_EQ(fileNamed(name), nullptr) << name;
    }
    EXPECT_EQ(DCIFileObject::initWithFileName("kick.wav", nullptr), nullptr);
    if (geteuid() != 0) {  // permissions do not bind the superuser
        ASSERT_EQ(chmod((directory / "kick.wav").c_str(), 0), 0);
        EXPECT_EQ(fileNamed("kick.wav"), nullptr);
    }
}

// Setting the modification time stamps the status-change time with now, a visibly different clock.
TEST_F(DCIFileObjectTests, DatesAreTheWholeSecondsOfTheTargetReadWhenAskedAndKeptWhenItIsGone) {
    const std::string target = directory.writeFile("samples/kick.wav", "abc");
    fs::create_symlink(target, directory / "link.wav");
    const auto file = fileNamed("link.wav");
    // 2001, 1969 (rounded down) and 2300, past what 64-bit nanoseconds reach.
    for (const time_t seconds : {1'000'000'000L, -1L, 10'413'792'000L}) {
        setModificationTime(target, seconds, 700'000'000);
        EXPECT_NE(file->modifiedDate().timeIntervalSince1970(), static_cast<double>(seconds)) << "read only when asked";
        EXPECT_TRUE(file->updateAttributes());
        struct stat status;
        ASSERT_EQ(stat(target.c_str(), &status), 0);
        EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), static_cast<double>(seconds));
        EXPECT_EQ(file->createdDate().timeIntervalSince1970(), static_cast<double>(status.st_ctim.tv_sec));
    }
    const DCIDate created = file->createdDate();
    fs::remove(target);
    EXPECT_FALSE(file->updateAttributes());
    EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), 10'413'792'000.0);
    EXPECT_EQ(file->createdDate(), created);
}

// Relative paths meet the folder by identity (the absolute path): a folder of another build of
// the tree serves, one of another tree never does. A file let go by its tree keeps its path.
TEST_F(DCIFileObjectTests, PathsAndIdentityFollowTheAbsolutePath) {
    directory.writeFiles({"top.wav", "a/b/deep.wav"});
    auto root = buildTree();
    const auto top = root->files()->at("top.wav");
    auto b = root->subFolders()->at("a")->subFolders()->at("b");
    const auto deep = b->files()->at("deep.wav");
    EXPECT_EQ(deep->absolutePath(), directory / "a/b/deep.wav");
    EXPECT_EQ(deep->relativePath(), "a/b/deep.wav");

    directory.writeFile("top.wav", "different content");
    const auto topAgain = buildTree()->files()->at("top.wav");
    EXPECT_NE(top, topAgain);
    EXPECT_TRUE(top->isEqual(*topAgain));
    EXPECT_EQ(top->hash(), topAgain->hash());
    EXPECT_FALSE(top->isEqual(*deep));
    EXPECT_EQ((DCIFileSet{top, topAgain, deep}.size()), 2u);
    // A folder at the file's path is something else.
    const auto folderAtFilePath = DCIFolderObject::initWithPath(top->absolutePath(), nullptr, queries);
    ASSERT_NE(folderAtFilePath, nullptr);
    EXPECT_FALSE(top->isEqual(*folderAtFilePath));
    EXPECT_FALSE(folderAtFilePath->isEqual(*top));

    const uint64_t identity = deep->hash();
    fs::rename(directory / "a", directory / "renamed");
    root.reset();
    b.reset();
    EXPECT_EQ(deep->parent(), nullptr);
    EXPECT_EQ(deep->absolutePath(), directory / "a/b/deep.wav");
    EXPECT_EQ(deep->hash(), identity);
    EXPECT_EQ(deep->relativePath(), "deep.wav");
    EXPECT_EQ(deep->pathRelativeToFolder(buildTree()), std::nullopt);
}

// A hash is computed on first use, by every thread that asks for it at once, and then kept.
TEST_F(DCIFileObjectTests, FileHashIsComputedOnFirstUseAndThenKept) {
    const std::string path = directory.writeFile("kick.wav", "abc");
    const auto file = fileNamed("kick.wav");
    std::vector<std::optional<std::string>> answers(8);
    {
        std::vector<std::jthread> threads;
        for (auto& answer : answers) threads.emplace_back([&] { answer = file->fileHash(); });
    }
    for (const auto& answer : answers) EXPECT_EQ(answer, kSHA256OfABC);
    fs::remove(path);
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a stored hash is not recomputed";
    file->setFileHash(std::nullopt);
    EXPECT_EQ(file->fileHash(), std::nullopt);
    directory.writeFile("kick.wav", "abc");
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a failed computation is tried again";
}

}  // namespace
