// Path text, and the small utilities of names, values and folders.

#include "CoreKestly/KestlyUtilities.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

#include "support/Testing.h"

#include <pwd.h>

namespace {

std::optional<std::string> homeInUserDatabase(const passwd* entry) {
    if (!entry || !entry->pw_dir || !*entry->pw_dir) return std::nullopt;
    return KestlyPath::standardize(entry->pw_dir);
}

TEST(KestlyPathTests, StandardizeExpandsHomeFolders) {
    {
        ScopedEnvironment home("HOME", "/home//tester/");
        for (const auto& [path, expected] : {std::pair{"~", "/home/tester"}, {"~/", "/home/tester"},
                                             {"~//Music/", "/home/tester/Music"}, {"~/../..", "/"},
                                             {"~/Music/../Samples/./kick.wav", "/home/tester/Samples/kick.wav"}})
            EXPECT_EQ(KestlyPath::standardize(path), expected) << path;
    }
    // Without $HOME, the user database answers.
    const auto ownHome = homeInUserDatabase(getpwuid(getuid()));
    for (const char* home : {static_cast<const char*>(nullptr), ""}) {
        ScopedEnvironment environment("HOME", home);
        EXPECT_EQ(KestlyPath::standardize("~/Music"), ownHome ? *ownHome + "/Music" : "~/Music");
    }
    const auto rootHome = homeInUserDatabase(getpwnam("root"));
    EXPECT_EQ(KestlyPath::standardize("~root/Music/"), rootHome ? *rootHome + "/Music" : "~root/Music");
    EXPECT_EQ(KestlyPath::standardize("~root"), rootHome.value_or("~root"));
    // An unknown user leaves the path relative, so its ".." stays too.
    EXPECT_EQ(KestlyPath::standardize("~no-such-kestly-user/a/../b/"), "~no-such-kestly-user/a/../b");
}

TEST(KestlyPathTests, AppendingComponent) {
    const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
        {"", "a", "a"}, {"", "/a", "/a"}, {"", "", ""}, {"/", "a", "/a"}, {"/a", "b", "/a/b"}, {"/a/", "b", "/a/b"},
        {"/a//", "//b", "/a/b"}, {"a", "/b", "a/b"}, {"a", "b/c", "a/b/c"}, {"a", "", "a"}, {"a/", "/", "a/"},
    };
    for (const auto& [base, component, expected] : rows)
        EXPECT_EQ(KestlyPath::appendingComponent(base, component), expected) << base << " + " << component;
}

// Each row: a function, a path, and what it answers; `parts` ends each component with "|".
TEST(KestlyPathTests, PathFunctions) {
    using Function = std::string (*)(std::string_view);
    const Function clean = KestlyPath::standardize, last = KestlyPath::lastComponent, parent = KestlyPath::deletingLastComponent,
                   ext = KestlyPath::extension, stem = KestlyPath::deletingExtension, parts = [](std::string_view path) {
                       std::string joined;
                       for (const auto& component : KestlyPath::components(path)) joined += component + "|";
                       return joined;
                   };
    const std::vector<std::tuple<Function, std::string, std::string>> rows = {
        {clean, "", ""}, {clean, "/", "/"}, {clean, "//", "/"}, {clean, "///a///", "/a"}, {clean, "a//b/", "a/b"},
        {clean, "/a/./b/../c", "/a/c"}, {clean, "/a/b/..", "/a"}, {clean, "/..", "/"}, {clean, "/../a", "/a"},
        {clean, "/a/b/../../../..", "/"}, {clean, "/a/..b/c./...", "/a/..b/c./..."},
        {clean, "/Bëat Prøject/./Samples//kick.wav/", "/Bëat Prøject/Samples/kick.wav"},
        // Without an anchor, ".." cannot be resolved and stays; only a leading tilde is expanded.
        {clean, "../x", "../x"}, {clean, "a/..", "a/.."}, {clean, "a/../../b/", "a/../../b"}, {clean, "./a", "a"},
        {clean, "a/./b", "a/b"}, {clean, ".", "."}, {clean, "././/", "."}, {clean, "/a/~/b", "/a/~/b"}, {clean, "a/~", "a/~"},
        {parts, "", ""}, {parts, "/", "/|"}, {parts, "//", "/|"}, {parts, "/a/b", "/|a|b|"}, {parts, "a//b/", "a|b|"},
        {parts, "/a/./b/../c", "/|a|.|b|..|c|"}, {parts, "../x", "..|x|"}, {parts, "~/Music", "~|Music|"},
        {last, "", ""}, {last, "/", "/"}, {last, "//", "/"}, {last, "a", "a"}, {last, "/a", "a"}, {last, "a/b/", "b"},
        {last, "a//b//", "b"}, {last, ".hidden", ".hidden"}, {last, "/a/..", ".."},
        {parent, "", ""}, {parent, "/", "/"}, {parent, "//", "/"}, {parent, "/a", "/"}, {parent, "//a", "/"},
        {parent, "a", ""}, {parent, "a/", ""}, {parent, "a/b/", "a"}, {parent, "a//b", "a"}, {parent, "/a/b", "/a"},
        {parent, "/a//b//", "/a"}, {parent, "../x", ".."},
        {ext, "", ""}, {ext, "/", ""}, {ext, "kick.wav", "wav"}, {ext, "/a/kick.WAV", "WAV"}, {ext, "a.tar.gz", "gz"},
        {ext, ".hidden", ""}, {ext, "/a/.hidden", ""}, {ext, ".hidden.txt", "txt"}, {ext, "a.", ""}, {ext, "..", ""},
        {ext, "noextension", ""}, {ext, "a.b/c", ""}, {ext, "a/b.txt/", "txt"}, {ext, "/Bëat/kick.wäv", "wäv"},
        {stem, "", ""}, {stem, "/", "/"}, {stem, "kick.wav", "kick"}, {stem, "/a/kick.wav", "/a/kick"},
        {stem, "a.tar.gz", "a.tar"}, {stem, ".hidden", ".hidden"}, {stem, "a.", "a."}, {stem, "a.b/c", "a.b/c"},
        {stem, "a/b.txt/", "a/b"}, {stem, "a/", "a"},
    };
    for (const auto& [function, path, expected] : rows) EXPECT_EQ(function(path), expected) << "path: \"" << path << "\"";
}

// Each row: a path, a folder, and whether the path is that folder or lies below it.
TEST(KestlyPathTests, IsSameOrBelow) {
    const std::vector<std::tuple<std::string, std::string, bool>> rows = {
        {"/a/Drums", "/a/Drums", true}, {"/a/Drums/kick.wav", "/a/Drums", true}, {"/a/Drums/x/y", "/a", true},
        {"/a/Drums 2", "/a/Drums", false}, {"/a/Drumsticks/kick.wav", "/a/Drums", false}, {"/a", "/a/Drums", false},
        {"/b/Drums", "/a/Drums", false}, {"/a", "/", true}, {"/", "/", true}, {"/a/b", "/a/", true},
    };
    for (const auto& [path, folder, expected] : rows)
        EXPECT_EQ(KestlyPath::isSameOrBelow(path, folder), expected) << path << " in " << folder;
}

// A DAW's name is matched whole, in any case, and written in lower case; no other number has one.
TEST(KestlyUtilitiesTests, DAWNamesAndNullValues) {
    const std::pair<const char*, DCIKestlyDAW> rows[] = {
        {"ableton", DCIKestlyDAWAbleton}, {"ABLETON", DCIKestlyDAWAbleton}, {"Logic", DCIKestlyDAWLogic},
        {"Logic Pro", DCIKestlyDAWUnknown}, {"", DCIKestlyDAWUnknown}, {"able", DCIKestlyDAWUnknown},
        {"ableton ", DCIKestlyDAWUnknown}, {"Unknown", DCIKestlyDAWUnknown}, {nullptr, DCIKestlyDAWUnknown},
    };
    for (const auto& [text, daw] : rows) {
        const auto optional = text ? std::optional<std::string>(text) : std::nullopt;
        EXPECT_EQ(std::pair(DCIKestlyDAWFromString(text), DCIKestlyDAWFromString(optional)), std::pair(daw, daw))
            << (text ? text : "(null)");
    }
    EXPECT_EQ((std::vector{DCIKestlyDAWAsString(DCIKestlyDAWUnknown), DCIKestlyDAWAsString(DCIKestlyDAWAbleton),
                           DCIKestlyDAWAsString(DCIKestlyDAWLogic), DCIKestlyDAWAsString(3), DCIKestlyDAWAsString(UINT64_MAX)}),
              (std::vector<std::string>{"Unknown", "ableton", "logic", "Unknown", "Unknown"}));
    EXPECT_EQ(std::pair(KSTMakeNull(std::nullopt), KSTMakeNull(DCIValue(42))), std::pair(DCINull(), DCIValue(42)));
}

// Each row makes files, folders (ending in "/") and folder links ("name -> target"), hands over
// a path, relative to the root or to a working folder, and gives the tree left behind. The
// folders "Locked" and "Unreadable" lose their owner's write and read permission.
TEST(KestlyUtilitiesTests, RemoveEmptyFoldersUnderPath) {
    struct Case { std::vector<std::string> made; std::string path; std::set<std::string> left; const char* workingFolder = {}; };
    const Case cases[] = {
        {{"Samples/Drums/Kicks/", "Samples/Bass/bass.wav"}, "Samples/Drums/Kicks",
         {"Samples", "Samples/Bass", "Samples/Bass/bass.wav"}},
        {{"a/b/c/d/", ".keep"}, "a/b/c/d/", {".keep"}},  // up to the first folder that holds something
        {{"Samples/Drums/.DS_Store"}, "Samples/Drums", {"Samples", "Samples/Drums", "Samples/Drums/.DS_Store"}},
        {{"Samples/kick.wav"}, "Samples/kick.wav", {"Samples", "Samples/kick.wav"}}, {{"Samples/"}, "Samples/x/y", {"Samples"}},
        {{"Target/", "Links/Empty -> ../Target"}, "Links/Empty", {"Links", "Links/Empty", "Target"}},
        {{"Locked/Empty/"}, "Locked/Empty", {"Locked", "Locked/Empty"}}, {{"Unreadable/"}, "Unreadable", {"Unreadable"}},
        {{"Projects/Beat/Samples/"}, "Beat/Samples", {"Projects"}, "Projects"},  // never past where it started
    };
    for (const auto& test : cases) {
        if (geteuid() == 0 && (test.path == "Locked/Empty" || test.path == "Unreadable")) continue;  // the superuser may
        TemporaryDirectory root;
        for (const auto& made : test.made) {
            if (const size_t arrow = made.find(" -> "); arrow != std::string::npos) {
                const fs::path link = root / made.substr(0, arrow);
                fs::create_directories(link.parent_path());
                fs::create_directory_symlink(made.substr(arrow + 4), link);
            } else {
                made.ends_with('/') ? root.makeFolder(made) : root.writeFile(made, "");
            }
        }
        std::error_code absent;  // in most rows
        for (const auto& [name, permission] : {std::pair{"Locked", fs::perms::owner_write}, {"Unreadable", fs::perms::owner_read}})
            fs::permissions(root / name, permission, fs::perm_options::remove, absent);
        const fs::path previous = fs::current_path();
        if (test.workingFolder) fs::current_path(root / test.workingFolder);
        RemoveEmptyFoldersUnderPath(test.workingFolder ? test.path : root / test.path);
        fs::current_path(previous);
        std::set<std::string> left;
        for (const auto& entry : fs::recursive_directory_iterator(root.path(), fs::directory_options::skip_permission_denied))
            left.insert(entry.path().lexically_relative(root.path()).string());
        EXPECT_EQ(left, test.left) << test.path;
    }
    RemoveEmptyFoldersUnderPath("");  // and does not crash
}

}  // namespace
