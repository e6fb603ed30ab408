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
    const auto file = fileNamed("kick.wav");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->name(), "kick.wav");
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
TEST_F(DCIFileObjectTests, DatesAreTheWholeSecondsOfTheModificationAndStatusChangeTimesOfTheTarget) {
    const std::string target = directory.writeFile("samples/kick.wav", "abc");
    fs::create_symlink(target, directory / "link.wav");
    // 2001, 1969 (rounded down) and 2300, past what 64-bit nanoseconds reach.
    for (const time_t seconds : {1'000'000'000L, -1L, 10'413'792'000L}) {
        setModificationTime(target, seconds, 700'000'000);
        const auto file = fileNamed("link.wav");
        ASSERT_NE(file, nullptr);
        struct stat status;
        ASSERT_EQ(stat(target.c_str(), &status), 0);
        EXPECT_EQ(file->modifiedDate().timeIntervalSince1970(), static_cast<double>(seconds));
        EXPECT_EQ(file->createdDate().timeIntervalSince1970(), static_cast<double>(status.st_ctim.tv_sec));
    }
}

TEST_F(DCIFileObjectTests, UpdateAttributesRereadsTheDatesAndKeepsThemWhenTheFileIsGone) {
    const std::string path = directory.writeFile("kick.wav", "abc");
    setModificationTime(path, 1'000'000'000);
    const auto file = fileNamed("kick.wav");
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

TEST_F(DCIFileObjectTests, PathsFollowTheTreeAndStayWhenItGoes) {
    directory.writeFiles({"top.wav", "a/b/deep.wav"});
    auto root = buildTree();
    const auto top = root->files()->at("top.wav");
    auto b = root->subFolders()->at("a")->subFolders()->at("b");
    const auto deep = b->files()->at("deep.wav");
    EXPECT_EQ(deep->absolutePath(), directory / "a/b/deep.wav");
    EXPECT_EQ(deep->relativePath(), "a/b/deep.wav");
    EXPECT_EQ(deep->pathRelativeToFolder(b), "deep.wav");
    EXPECT_EQ(deep->pathRelativeToFolder(root), "a/b/deep.wav");
    EXPECT_EQ(top->pathRelativeToFolder(b), "../../top.wav");
    EXPECT_EQ(top->pathRelativeToFolder(nullptr), std::nullopt);
    TemporaryDirectory elsewhere;
    EXPECT_EQ(top->pathRelativeToFolder(DCIFolderObject::initWithPath(elsewhere.path().string(), nullptr, queries)),
              std::nullopt);

    // Renamed on disk, then let go by its tree: the object keeps the path it was made with.
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

// Files and folders of two builds of one tree meet by absolute path, whatever their content.
TEST_F(DCIFileObjectTests, IdentityIsTheAbsolutePath) {
    directory.writeFiles({"kick.wav", "snare.wav"});
    directory.makeFolder("a/b");
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
    const DCIFileSet both{kick, kickAgain, snare};
    EXPECT_EQ(both.size(), 2u);

    const auto a = first->subFolders()->at("a"), aAgain = second->subFolders()->at("a");
    EXPECT_TRUE(a->isEqual(*aAgain));
    EXPECT_EQ(a->hash(), aAgain->hash());
    EXPECT_FALSE(a->isEqual(*a->subFolders()->at("b")));
    // A folder at the file's path is something else.
    const auto folderAtFilePath = DCIFolderObject::initWithPath(kick->absolutePath(), nullptr, queries);
    ASSERT_NE(folderAtFilePath, nullptr);
    EXPECT_FALSE(kick->isEqual(*folderAtFilePath));
    EXPECT_FALSE(folderAtFilePath->isEqual(*kick));
}

TEST_F(DCIFileObjectTests, FileHashIsComputedOnFirstUseAndThenKept) {
    const std::string path = directory.writeFile("kick.wav", "abc");
    const auto file = fileNamed("kick.wav");
    EXPECT_EQ(file->fileHash(), kSHA256OfABC);
    fs::remove(path);
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a stored hash is not recomputed";
    file->setFileHash(std::nullopt);
    EXPECT_EQ(file->fileHash(), std::nullopt);
    directory.writeFile("kick.wav", "abc");
    EXPECT_EQ(file->fileHash(), kSHA256OfABC) << "a failed computation is tried again";
}

TEST_F(DCIFileObjectTests, ThreadsThatAllAskForAMissingHashAllGetIt) {
    directory.writeFile("kick.wav", "abc");
    const auto file = fileNamed("kick.wav");
    std::vector<std::optional<std::string>> answers(8);
    {
        std::vector<std::jthread> threads;
        for (auto& answer : answers) threads.emplace_back([&] { answer = file->fileHash(); });
    }
    for (const auto& answer : answers) EXPECT_EQ(answer, kSHA256OfABC);
}

}  // namespace
