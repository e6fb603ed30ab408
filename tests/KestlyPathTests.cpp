#include "CoreKestly/Platform/KestlyPath.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <optional>
#include <tuple>
#include <utility>
#include <vector>

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
        {"", ""},
        {"/", "/"},
        {"//", "/"},
        {"///a///", "/a"},
        {"a//b/", "a/b"},
        {"/a/./b/../c", "/a/c"},
        {"/a/b/..", "/a"},
        {"/..", "/"},
        {"/../a", "/a"},
        {"/a/b/../../../..", "/"},
        {"/a/..b/c./...", "/a/..b/c./..."},
        {"/Bëat Prøject/./Samples//kick.wav/", "/Bëat Prøject/Samples/kick.wav"},
        // Without an anchor, ".." cannot be resolved and stays.
        {"../x", "../x"},
        {"a/..", "a/.."},
        {"a/../../b/", "a/../../b"},
        {"./a", "a"},
        {"a/./b", "a/b"},
        {".", "."},
        {"././/", "."},
        // Only a leading tilde is expanded.
        {"/a/~/b", "/a/~/b"},
        {"a/~", "a/~"},
    });
}

TEST(KestlyPathTests, StandardizeExpandsTheHomeFolder) {
    ScopedEnvironment home("HOME", "/home/tester");
    expectRows(KestlyPath::standardize, {
        {"~", "/home/tester"},
        {"~/", "/home/tester"},
        {"~/Music", "/home/tester/Music"},
        {"~//Music/", "/home/tester/Music"},
        {"~/Music/../Samples/./kick.wav", "/home/tester/Samples/kick.wav"},
        {"~/../..", "/"},
    });

    ScopedEnvironment untidyHome("HOME", "/home//tester/");
    EXPECT_EQ(KestlyPath::standardize("~/Music"), "/home/tester/Music");
}

TEST(KestlyPathTests, StandardizeFallsBackToTheUserDatabaseWithoutHome) {
    const auto expected = homeInUserDatabase(getpwuid(getuid()));
    for (const char* home : {static_cast<const char*>(nullptr), ""}) {
        ScopedEnvironment environment("HOME", home);
        EXPECT_EQ(KestlyPath::standardize("~/Music"), expected ? *expected + "/Music" : "~/Music");
    }
}

TEST(KestlyPathTests, StandardizeExpandsOtherUsersHomes) {
    const auto rootHome = homeInUserDatabase(getpwnam("root"));
    EXPECT_EQ(KestlyPath::standardize("~root/Music/"), rootHome ? *rootHome + "/Music" : "~root/Music");
    EXPECT_EQ(KestlyPath::standardize("~root"), rootHome.value_or("~root"));
    // An unknown user leaves the path relative, so its ".." stays too.
    EXPECT_EQ(KestlyPath::standardize("~no-such-kestly-user/a/../b/"), "~no-such-kestly-user/a/../b");
}

TEST(KestlyPathTests, Components) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"", {}},
        {"/", {"/"}},
        {"//", {"/"}},
        {"/a/b", {"/", "a", "b"}},
        {"a//b/", {"a", "b"}},
        {"/a/./b/../c", {"/", "a", ".", "b", "..", "c"}},
        {"../x", {"..", "x"}},
        {"~/Music", {"~", "Music"}},
        {"/Bëat Prøject/kick.wav", {"/", "Bëat Prøject", "kick.wav"}},
    };
    for (const auto& [path, expected] : rows) EXPECT_EQ(KestlyPath::components(path), expected) << path;
}

TEST(KestlyPathTests, AppendingComponent) {
    const std::vector<std::tuple<std::string, std::string, std::string>> rows = {
        {"", "a", "a"},
        {"", "/a", "/a"},
        {"", "", ""},
        {"/", "a", "/a"},
        {"/a", "b", "/a/b"},
        {"/a/", "b", "/a/b"},
        {"/a//", "//b", "/a/b"},
        {"a", "/b", "a/b"},
        {"a", "b/c", "a/b/c"},
        {"a", "", "a"},
        {"a/", "/", "a/"},
        {"/tmp", "com.kestly.current.log", "/tmp/com.kestly.current.log"},
        {"/Bëat Prøject", "kick.wav", "/Bëat Prøject/kick.wav"},
    };
    for (const auto& [base, component, expected] : rows)
        EXPECT_EQ(KestlyPath::appendingComponent(base, component), expected) << base << " + " << component;
}

TEST(KestlyPathTests, AppendingComponentsRebuildsAStandardPath) {
    for (const std::string path : {"/", "/a", "/Bëat Prøject/Samples/kick.wav", "a/b", "../x"}) {
        std::string rebuilt;
        for (const auto& component : KestlyPath::components(path))
            rebuilt = KestlyPath::appendingComponent(rebuilt, component);
        EXPECT_EQ(rebuilt, path);
    }
}

TEST(KestlyPathTests, LastComponent) {
    expectRows(KestlyPath::lastComponent, {
        {"", ""},
        {"/", "/"},
        {"//", "/"},
        {"a", "a"},
        {"/a", "a"},
        {"a/b/", "b"},
        {"a//b//", "b"},
        {".hidden", ".hidden"},
        {"/a/..", ".."},
        {"/Bëat Prøject/kick.wav", "kick.wav"},
    });
}

TEST(KestlyPathTests, DeletingLastComponent) {
    expectRows(KestlyPath::deletingLastComponent, {
        {"", ""},
        {"/", "/"},
        {"//", "/"},
        {"/a", "/"},
        {"//a", "/"},
        {"a", ""},
        {"a/", ""},
        {"a/b/", "a"},
        {"a//b", "a"},
        {"/a/b", "/a"},
        {"/a//b//", "/a"},
        {"../x", ".."},
        {"/Bëat Prøject/kick.wav", "/Bëat Prøject"},
    });
}

TEST(KestlyPathTests, Extension) {
    expectRows(KestlyPath::extension, {
        {"", ""},
        {"/", ""},
        {"kick.wav", "wav"},
        {"/a/kick.WAV", "WAV"},
        {"a.tar.gz", "gz"},
        {".hidden", ""},
        {"/a/.hidden", ""},
        {".hidden.txt", "txt"},
        {"a.", ""},
        {"..", ""},
        {"noextension", ""},
        {"a.b/c", ""},
        {"a/b.txt/", "txt"},
        {"/Bëat Prøject/kick.wäv", "wäv"},
    });
}

TEST(KestlyPathTests, DeletingExtension) {
    expectRows(KestlyPath::deletingExtension, {
        {"", ""},
        {"/", "/"},
        {"kick.wav", "kick"},
        {"/a/kick.wav", "/a/kick"},
        {"a.tar.gz", "a.tar"},
        {".hidden", ".hidden"},
        {"a.", "a."},
        {"a.b/c", "a.b/c"},
        {"a/b.txt/", "a/b"},
        {"a/", "a"},
        {"/Bëat Prøject/Beat.als", "/Bëat Prøject/Beat"},
    });
}

}  // namespace
