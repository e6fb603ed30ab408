#include "CoreKestly/KestlyUtilities.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

TEST(KestlyUtilitiesTests, DAWFromString) {
    const std::vector<std::pair<const char*, DCIKestlyDAW>> rows = {
        {"ableton", DCIKestlyDAWAbleton}, {"Ableton", DCIKestlyDAWAbleton}, {"ABLETON", DCIKestlyDAWAbleton},
        {"logic", DCIKestlyDAWLogic},     {"Logic", DCIKestlyDAWLogic},     {"Logic Pro", DCIKestlyDAWUnknown},
        {"", DCIKestlyDAWUnknown},        {"able", DCIKestlyDAWUnknown},    {"ableton ", DCIKestlyDAWUnknown},
        {"Unknown", DCIKestlyDAWUnknown},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(DCIKestlyDAWFromString(text), expected) << text;
        EXPECT_EQ(DCIKestlyDAWFromString(std::string(text)), expected) << text;
        EXPECT_EQ(DCIKestlyDAWFromString(std::optional<std::string>(text)), expected) << text;
    }
}

TEST(KestlyUtilitiesTests, DAWFromNoStringIsUnknown) {
    EXPECT_EQ(DCIKestlyDAWFromString(nullptr), DCIKestlyDAWUnknown);
    EXPECT_EQ(DCIKestlyDAWFromString(std::nullopt), DCIKestlyDAWUnknown);
    EXPECT_EQ(DCIKestlyDAWFromString(std::optional<std::string>()), DCIKestlyDAWUnknown);
}

TEST(KestlyUtilitiesTests, DAWAsString) {
    const std::vector<std::pair<DCIKestlyDAW, std::string>> rows = {
        {DCIKestlyDAWUnknown, "Unknown"}, {DCIKestlyDAWAbleton, "ableton"}, {DCIKestlyDAWLogic, "logic"},
        {3, "Unknown"},                   {7, "Unknown"},                   {UINT64_MAX, "Unknown"},
    };
    for (const auto& [daw, expected] : rows) EXPECT_EQ(DCIKestlyDAWAsString(daw), expected) << daw;
    for (const DCIKestlyDAW daw : {DCIKestlyDAWAbleton, DCIKestlyDAWLogic})
        EXPECT_EQ(DCIKestlyDAWFromString(DCIKestlyDAWAsString(daw)), daw);
}

TEST(KestlyUtilitiesTests, MakeNullSubstitutesTheNullValueForNothing) {
    EXPECT_EQ(KSTMakeNull(std::nullopt), DCINull());
    EXPECT_TRUE(KSTMakeNull(std::optional<DCIValue>()).isNull());

    const DCIValue text = KSTMakeNull(std::string("kick.wav"));
    ASSERT_NE(text.string(), nullptr);
    EXPECT_EQ(*text.string(), "kick.wav");
    EXPECT_EQ(KSTMakeNull(DCIValue(int64_t{42})), DCIValue(int64_t{42}));
}

class RemoveEmptyFoldersTests : public ::testing::Test {
protected:
    bool exists(const std::string& relative) const { return fs::exists(folder_.path() / relative); }

    TemporaryDirectory folder_;
};

TEST_F(RemoveEmptyFoldersTests, RemovesTheFolderAndEachAncestorLeftEmpty) {
    folder_.makeFolder("Samples/Drums/Kicks");
    folder_.writeFile("Samples/Bass/bass.wav", "bass");

    RemoveEmptyFoldersUnderPath(folder_ / "Samples/Drums/Kicks");

    EXPECT_FALSE(exists("Samples/Drums"));
    EXPECT_TRUE(exists("Samples/Bass/bass.wav"));
}

TEST_F(RemoveEmptyFoldersTests, AcceptsATrailingSeparator) {
    folder_.makeFolder("Samples/Drums/Kicks");
    folder_.writeFile("Samples/keep.txt", "");

    RemoveEmptyFoldersUnderPath(folder_ / "Samples/Drums/Kicks/");

    EXPECT_FALSE(exists("Samples/Drums"));
    EXPECT_TRUE(exists("Samples/keep.txt"));
}

TEST_F(RemoveEmptyFoldersTests, WalksUpToTheFirstFolderThatHoldsSomething) {
    folder_.writeFile(".keep", "");
    folder_.makeFolder("a/b/c/d");

    RemoveEmptyFoldersUnderPath(folder_ / "a/b/c/d");

    EXPECT_FALSE(exists("a"));
    EXPECT_TRUE(exists(".keep"));
}

TEST_F(RemoveEmptyFoldersTests, AHiddenFileKeepsItsFolder) {
    folder_.writeFile("Samples/Drums/.DS_Store", "");

    RemoveEmptyFoldersUnderPath(folder_ / "Samples/Drums");

    EXPECT_TRUE(exists("Samples/Drums/.DS_Store"));
}

TEST_F(RemoveEmptyFoldersTests, AFileOrNothingDeletesNothing) {
    const std::string file = folder_.writeFile("Samples/kick.wav", "kick");

    RemoveEmptyFoldersUnderPath(file);
    RemoveEmptyFoldersUnderPath(folder_ / "Samples/missing/deeper");
    RemoveEmptyFoldersUnderPath("");

    EXPECT_TRUE(exists("Samples/kick.wav"));
}

TEST_F(RemoveEmptyFoldersTests, ALinkToAnEmptyFolderIsNeitherFollowedNorRemoved) {
    folder_.makeFolder("Target");
    folder_.makeFolder("Links");
    fs::create_directory_symlink(folder_.path() / "Target", folder_.path() / "Links/Empty");

    RemoveEmptyFoldersUnderPath(folder_ / "Links/Empty");

    EXPECT_TRUE(fs::is_symlink(folder_.path() / "Links/Empty"));
    EXPECT_TRUE(exists("Target"));
}

TEST_F(RemoveEmptyFoldersTests, AFolderThatCannotBeDeletedEndsTheWalk) {
    if (geteuid() == 0) GTEST_SKIP() << "root deletes whatever the permissions say";
    folder_.makeFolder("Locked/Empty");
    fs::permissions(folder_ / "Locked", fs::perms::owner_write, fs::perm_options::remove);

    RemoveEmptyFoldersUnderPath(folder_ / "Locked/Empty");

    EXPECT_TRUE(exists("Locked/Empty"));
}

TEST_F(RemoveEmptyFoldersTests, AFolderThatCannotBeListedIsKept) {
    if (geteuid() == 0) GTEST_SKIP() << "root lists whatever the permissions say";
    folder_.makeFolder("Unreadable");
    fs::permissions(folder_ / "Unreadable", fs::perms::owner_read, fs::perm_options::remove);

    RemoveEmptyFoldersUnderPath(folder_ / "Unreadable");

    EXPECT_TRUE(exists("Unreadable"));
}

TEST_F(RemoveEmptyFoldersTests, ARelativePathEndsWhenNoComponentIsLeft) {
    folder_.makeFolder("Projects/Beat/Samples");
    const fs::path previous = fs::current_path();
    fs::current_path(folder_.path() / "Projects");

    RemoveEmptyFoldersUnderPath("Beat/Samples");

    fs::current_path(previous);
    EXPECT_FALSE(exists("Projects/Beat"));
    // The working folder is empty now, but the walk never reaches past the path it was given.
    EXPECT_TRUE(exists("Projects"));
}

}  // namespace
