#include "CoreKestly/KestlyUtilities.h"

#include "support/Testing.h"

namespace {

TEST(KestlyUtilitiesTests, DAWNamesAndNullValues) {
    const std::vector<std::pair<const char*, DCIKestlyDAW>> rows = {
        {"ableton", DCIKestlyDAWAbleton}, {"ABLETON", DCIKestlyDAWAbleton}, {"Logic", DCIKestlyDAWLogic},
        {"Logic Pro", DCIKestlyDAWUnknown}, {"", DCIKestlyDAWUnknown}, {"able", DCIKestlyDAWUnknown},
        {"ableton ", DCIKestlyDAWUnknown}, {"Unknown", DCIKestlyDAWUnknown},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(DCIKestlyDAWFromString(text), expected) << text;
        EXPECT_EQ(DCIKestlyDAWFromString(std::optional<std::string>(text)), expected) << text;
    }
    EXPECT_EQ(DCIKestlyDAWFromString(nullptr), DCIKestlyDAWUnknown);
    EXPECT_EQ(DCIKestlyDAWFromString(std::nullopt), DCIKestlyDAWUnknown);
    for (const auto& [daw, expected] : std::vector<std::pair<DCIKestlyDAW, std::string>>{
             {DCIKestlyDAWUnknown, "Unknown"}, {DCIKestlyDAWAbleton, "ableton"}, {DCIKestlyDAWLogic, "logic"},
             {3, "Unknown"}, {UINT64_MAX, "Unknown"}}) {
        EXPECT_EQ(DCIKestlyDAWAsString(daw), expected) << daw;
    }
    EXPECT_EQ(KSTMakeNull(std::nullopt), DCINull());
    EXPECT_EQ(KSTMakeNull(DCIValue(int64_t{42})), DCIValue(int64_t{42}));
}

// Each row: the folders and files made, the path handed over, what must be gone and what must stay.
TEST(KestlyUtilitiesTests, RemoveEmptyFoldersUnderPath) {
    struct Row {
        const char* why;
        std::vector<std::string> folders, files;
        std::string path;
        std::vector<std::string> gone, kept;
        std::function<void(const TemporaryDirectory&)> prepare = nullptr;
    };
    const auto withoutPermission = [](const char* folder, fs::perms permission) {
        return [=](const TemporaryDirectory& root) {
            fs::permissions(root / folder, permission, fs::perm_options::remove);
        };
    };
    const std::vector<Row> rows = {
        {"each ancestor left empty", {"Samples/Drums/Kicks"}, {"Samples/Bass/bass.wav"}, "Samples/Drums/Kicks",
         {"Samples/Drums"}, {"Samples/Bass/bass.wav"}},
        {"a trailing separator, up to the first folder that holds something", {"a/b/c/d"}, {".keep"}, "a/b/c/d/",
         {"a"}, {".keep"}},
        {"a hidden file", {}, {"Samples/Drums/.DS_Store"}, "Samples/Drums", {}, {"Samples/Drums/.DS_Store"}},
        {"a file", {}, {"Samples/kick.wav"}, "Samples/kick.wav", {}, {"Samples/kick.wav"}},
        {"nothing there", {"Samples"}, {}, "Samples/missing/deeper", {}, {"Samples"}},
        {"a link to an empty folder", {"Target", "Links"}, {}, "Links/Empty", {}, {"Links/Empty", "Target"},
         [](const TemporaryDirectory& root) { fs::create_directory_symlink(root / "Target", root / "Links/Empty"); }},
        {"a folder that cannot be deleted", {"Locked/Empty"}, {}, "Locked/Empty", {}, {"Locked/Empty"},
         withoutPermission("Locked", fs::perms::owner_write)},
        {"a folder that cannot be listed", {"Unreadable"}, {}, "Unreadable", {}, {"Unreadable"},
         withoutPermission("Unreadable", fs::perms::owner_read)},
    };
    for (const auto& row : rows) {
        // Permissions do not bind the superuser.
        if (geteuid() == 0 && std::string_view(row.why).starts_with("a folder that cannot")) continue;
        TemporaryDirectory folder;
        for (const auto& made : row.folders) folder.makeFolder(made);
        for (const auto& file : row.files) folder.writeFile(file, "");
        if (row.prepare) row.prepare(folder);
        RemoveEmptyFoldersUnderPath(folder / row.path);
        for (const auto& gone : row.gone) EXPECT_FALSE(fs::exists(folder.path() / gone)) << row.why;
        for (const auto& kept : row.kept) EXPECT_TRUE(fs::symlink_status(folder.path() / kept).type() !=
                                                      fs::file_type::not_found) << row.why << ": " << kept;
    }
    RemoveEmptyFoldersUnderPath("");  // and does not crash

    // A relative path: the walk never reaches past the path it was given, though the working folder is empty.
    TemporaryDirectory folder;
    folder.makeFolder("Projects/Beat/Samples");
    const fs::path previous = fs::current_path();
    fs::current_path(folder.path() / "Projects");
    RemoveEmptyFoldersUnderPath("Beat/Samples");
    fs::current_path(previous);
    EXPECT_FALSE(fs::exists(folder.path() / "Projects/Beat"));
    EXPECT_TRUE(fs::exists(folder.path() / "Projects"));
}

}  // namespace
