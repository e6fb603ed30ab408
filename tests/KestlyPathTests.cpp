#include "CoreKestly/Platform/KestlyPath.h"

#include "support/Testing.h"

#include <pwd.h>

namespace {

using Row = std::pair<std::string, std::string>;

template <class Function>
void expectRows(Function function, const std::vector<Row>& rows) {
    for (const auto& [path, expected] : rows) EXPECT_EQ(function(path), expected) << "path: \"" << path << "\"";
}

std::optional<std::string> homeInUserDatabase(const passwd* entry) {
    if (!entry || !entry->pw_dir || !*entry->pw_dir) return std::nullopt;
    return KestlyPath::standardize(entry->pw_dir);
}

TEST(KestlyPathTests, StandardizeCleansSeparatorsAndDots) {
    expectRows(KestlyPath::standardize, {
        {"", ""}, {"/", "/"}, {"//", "/"}, {"///a///", "/a"}, {"a//b/", "a/b"},
        {"/a/./b/../c", "/a/c"}, {"/a/b/..", "/a"}, {"/..", "/"}, {"/../a", "/a"}, {"/a/b/../../../..", "/"},
        {"/a/..b/c./...", "/a/..b/c./..."}, {"/Bëat Prøject/./Samples//kick.wav/", "/Bëat Prøject/Samples/kick.wav"},
        // Without an anchor, ".." cannot be resolved and stays.
        {"../x", "../x"}, {"a/..", "a/.."}, {"a/../../b/", "a/../../b"}, {"./a", "a"}, {"a/./b", "a/b"},
        {".", "."}, {"././/", "."},
        {"/a/~/b", "/a/~/b"}, {"a/~", "a/~"},  // only a leading tilde is expanded
    });
}

TEST(KestlyPathTests, StandardizeExpandsHomeFolders) {
    {
        ScopedEnvironment home("HOME", "/home//tester/");
        expectRows(KestlyPath::standardize, {
            {"~", "/home/tester"}, {"~/", "/home/tester"}, {"~//Music/", "/home/tester/Music"},
            {"~/Music/../Samples/./kick.wav", "/home/tester/Samples/kick.wav"}, {"~/../..", "/"},
        });
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

TEST(KestlyPathTests, Components) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"", {}}, {"/", {"/"}}, {"//", {"/"}}, {"/a/b", {"/", "a", "b"}}, {"a//b/", {"a", "b"}},
        {"/a/./b/../c", {"/", "a", ".", "b", "..", "c"}}, {"../x", {"..", "x"}}, {"~/Music", {"~", "Music"}},
    };
    for (const auto& [path, expected] : rows) EXPECT_EQ(KestlyPath::components(path), expected) << path;
}

TEST(KestlyPathTests, AppendingComponent) {
    const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
        {"", "a", "a"}, {"", "/a", "/a"}, {"", "", ""}, {"/", "a", "/a"}, {"/a", "b", "/a/b"}, {"/a/", "b", "/a/b"},
        {"/a//", "//b", "/a/b"}, {"a", "/b", "a/b"}, {"a", "b/c", "a/b/c"}, {"a", "", "a"}, {"a/", "/", "a/"},
    };
    for (const auto& [base, component, expected] : rows)
        EXPECT_EQ(KestlyPath::appendingComponent(base, component), expected) << base << " + " << component;
}

// Each row: a function, a path, and what it answers.
TEST(KestlyPathTests, ComponentFunctions) {
    using Function = std::string (*)(std::string_view);
    const Function last = KestlyPath::lastComponent, parent = KestlyPath::deletingLastComponent,
                   ext = KestlyPath::extension, stem = KestlyPath::deletingExtension;
    const std::vector<std::tuple<Function, std::string, std::string>> rows = {
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

}  // namespace
