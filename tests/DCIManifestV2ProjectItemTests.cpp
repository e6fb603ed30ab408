#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "support/LogReading.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pwd.h>

namespace {

std::atomic<int> userLookups{0};

}  // namespace

// Counts the user-database lookups of this program, each still answered by the C library.
extern "C" int getpwnam_r(const char* name, passwd* entry, char* buffer, size_t size, passwd** found) {
    ++userLookups;
    using LookUp = int (*)(const char*, passwd*, char*, size_t, passwd**);
    static const auto lookUp = reinterpret_cast<LookUp>(dlsym(RTLD_NEXT, "getpwnam_r"));
    return lookUp(name, entry, buffer, size, found);
}

namespace {

using nlohmann::json;
using Manifest = std::shared_ptr<DCIManifestV2ProjectItem>;

std::shared_ptr<const DCIData> bytes(std::string_view text) { return std::make_shared<const DCIData>(text); }

json fileEntry(const std::string& path, uint64_t size = 1000) {
    return {{"path", path}, {"file_hash", "ab12"}, {"file_size", size}, {"url", "https://cdn.example.com/files/7f3a"}};
}

// A valid Ableton Live manifest of the project folder /Users/ann/Music/<project>.
json abletonManifest(const std::string& project = "Beat Project") {
    const std::string folder = "/Users/ann/Music/" + project;
    return {{"collaboration", true},
            {"contribution", false},
            {"created_at", "2014-05-06T10:20:30+0000"},
            {"creator_id", 4711},
            {"name", project},
            {"path", folder + "/Beat.als"},
            {"username", "ann"},
            {"uuid", "5b1e-uuid"},
            {"revision_uuid", "5b1e-rev-2"},
            {"previous_revision_uuid", "5b1e-rev-1"},
            {"project_type", "ableton"},
            {"files",
             {{"session", json::array({fileEntry(folder + "/Beat.als")})},
              {"samples", json::array({fileEntry(folder + "/Samples/kick.wav")})}}}};
}

// A valid manifest of a project type without a folder rule.
json logicManifest() {
    return {{"creator_id", 12}, {"name", "Song"}, {"path", "Projects/Song"}, {"username", "ann"},
            {"uuid", "9c-uuid"}, {"project_type", "logic"}};
}

Manifest read(const json& manifest) { return DCIManifestV2ProjectItem::initWithJSONData(bytes(manifest.dump())); }

// Reads `manifest` into a fresh object whatever its validity; `valid` gets readJSON's answer.
Manifest readAny(const json& manifest, bool* valid = nullptr) {
    Manifest item = DCIManifestV2ProjectItem::init();
    const bool answer = item->readJSON(bytes(manifest.dump()));
    if (valid) *valid = answer;
    return item;
}

std::vector<std::pair<std::string, std::string>> categoriesAndPaths(const Manifest& manifest) {
    std::vector<std::pair<std::string, std::string>> entries;
    for (const auto& file : manifest->projectFiles()) {
        entries.emplace_back(file->category(), file->pathRelativeToProject());
    }
    return entries;
}

using Entries = std::vector<std::pair<std::string, std::string>>;

class DCIManifestV2ProjectItemNamesTests : public testing::TestWithParam<std::string> {};

TEST_P(DCIManifestV2ProjectItemNamesTests, ReadsAnAbletonLiveProject) {
    const std::string project = GetParam();
    const Manifest manifest = read(abletonManifest(project));
    ASSERT_NE(manifest, nullptr);
    EXPECT_TRUE(manifest->isCollaboration());
    EXPECT_FALSE(manifest->isContribution());
    EXPECT_EQ(manifest->dateCreated(), DCIDate::dateWithTimeIntervalSince1970(1399371630));
    EXPECT_EQ(manifest->creatorID(), 4711u);
    EXPECT_EQ(manifest->projectName(), project);
    EXPECT_EQ(manifest->projectFolderPath(), "Users/ann/Music/" + project);
    EXPECT_EQ(manifest->projectOwner(), "ann");
    EXPECT_EQ(manifest->projectUUID(), "5b1e-uuid");
    EXPECT_EQ(manifest->projectRevisionUUID(), "5b1e-rev-2");
    EXPECT_EQ(manifest->projectPreviousRevisionUUID(), "5b1e-rev-1");
    EXPECT_EQ(manifest->projectType(), "ableton");
    // Categories in the order of their names.
    EXPECT_EQ(categoriesAndPaths(manifest), (Entries{{"samples", "Samples/kick.wav"}, {"session", "Beat.als"}}));
}

INSTANTIATE_TEST_SUITE_P(AnyScript, DCIManifestV2ProjectItemNamesTests,
                         testing::Values("Beat Project", "Bëat Prøject", "ビート 🎵"));

TEST(DCIManifestV2ProjectItemTests, LogsWhatItParses) {
    LogSince log;
    ASSERT_NE(read(abletonManifest()), nullptr);
    const std::string logged = log.text();
    EXPECT_NE(logged.find(": Parsing manifest information {\"collaboration\":true,"), std::string::npos) << logged;
    EXPECT_NE(logged.find("\"uuid\":\"5b1e-uuid\"}\n"), std::string::npos) << logged;
}

// A long folder repeated in a line per entry, a long path, a long category: each is cut.
TEST(DCIManifestV2ProjectItemTests, LogsEveryManifestValueShortened) {
    json manifest = logicManifest();
    manifest["path"] = "Projects/" + std::string(100'000, 'F');
    const std::string longPath = "Other/" + std::string(5000, 'p');
    for (int i = 0; i < 50; ++i) manifest["files"]["session"].push_back(fileEntry(longPath + std::to_string(i), 0));
    manifest["files"][std::string(5000, 'c')] = "no list";
    LogSince log;
    ASSERT_NE(read(manifest), nullptr);
    EXPECT_EQ(log.count("ERROR: No file size set in manifest for " + longPath.substr(0, 1024) + "…"), 50u);
    const std::string category = std::string(1024, 'c') + "…";
    EXPECT_TRUE(log.has("Unexpected values in manifest " + category + " (string) : \"no list\" (string)"));
    EXPECT_LT(log.text().size(), 50u * 4096);  // two lines an entry, each value at most 1 KiB
}

TEST(DCIManifestV2ProjectItemTests, TakesTheCreatorFromEitherKey) {
    json manifest = logicManifest();
    manifest["creator_id"] = 0;
    manifest["CreatorId"] = 12;
    EXPECT_EQ(read(manifest)->creatorID(), 12u);
    manifest.erase("creator_id");
    EXPECT_EQ(read(manifest)->creatorID(), 12u);
    manifest["creator_id"] = 5;
    EXPECT_EQ(read(manifest)->creatorID(), 5u);
    manifest["creator_id"] = "5";
    EXPECT_EQ(read(manifest)->creatorID(), 12u);

    manifest.erase("CreatorId");
    bool valid = true;
    EXPECT_EQ(readAny(manifest, &valid)->creatorID(), 0u);
    EXPECT_FALSE(valid);
    for (const json& creator : std::vector<json>{-4, 4.5, nullptr, true}) {
        manifest["creator_id"] = creator;
        EXPECT_EQ(read(manifest), nullptr) << creator;
    }
}

TEST(DCIManifestV2ProjectItemTests, NeedsOwnerUUIDNameAndFolder) {
    EXPECT_NE(read(logicManifest()), nullptr);
    const std::vector<std::pair<const char*, json>> broken = {
        {"username", nullptr}, {"username", ""}, {"username", 7},   {"uuid", ""}, {"uuid", nullptr},
        {"uuid", json::array()}, {"path", nullptr}, {"path", ""},  {"path", 3},
    };
    for (const auto& [key, value] : broken) {
        json manifest = logicManifest();
        if (value.is_null()) {
            manifest.erase(key);
        } else {
            manifest[key] = value;
        }
        EXPECT_EQ(read(manifest), nullptr) << key << " = " << value;
    }
}

TEST(DCIManifestV2ProjectItemTests, AnInvalidManifestKeepsWhatItRead) {
    json manifest = abletonManifest();
    manifest.erase("username");
    LogSince log;
    bool valid = true;
    const Manifest item = readAny(manifest, &valid);
    EXPECT_FALSE(valid);
    EXPECT_EQ(item->projectUUID(), "5b1e-uuid");
    EXPECT_EQ(item->projectFolderPath(), "Users/ann/Music/Beat Project");
    EXPECT_EQ(item->projectOwner(), std::nullopt);
    EXPECT_TRUE(item->projectFiles().empty());
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
}

TEST(DCIManifestV2ProjectItemTests, NamesAProjectAfterItsFolder) {
    json manifest = logicManifest();
    manifest.erase("name");
    Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->projectName(), "Song");
    EXPECT_EQ(item->projectFolderPath(), "Projects/Song");

    manifest["path"] = "/Projects/Sóng//";
    manifest["name"] = "";
    item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->projectName(), "Sóng");
    EXPECT_EQ(item->projectFolderPath(), "/Projects/Sóng//");

    manifest["name"] = 42;
    EXPECT_EQ(read(manifest)->projectName(), "Sóng");
}

TEST(DCIManifestV2ProjectItemTests, AbletonRuleIgnoresCase) {
    json manifest = abletonManifest();
    manifest["project_type"] = "Ableton";
    EXPECT_EQ(read(manifest)->projectFolderPath(), "Users/ann/Music/Beat Project");
    manifest["project_type"] = "ABLETON";
    EXPECT_EQ(read(manifest)->projectFolderPath(), "Users/ann/Music/Beat Project");
    manifest["project_type"] = "Ableton Live";
    EXPECT_EQ(read(manifest)->projectFolderPath(), "/Users/ann/Music/Beat Project/Beat.als");
}

TEST(DCIManifestV2ProjectItemTests, AbletonFolderFromTheFirstSessionEntry) {
    json manifest = abletonManifest();
    manifest["path"] = "Beat.als";
    manifest["files"]["session"] = json::array({fileEntry("/Users/ann/Beat Project/Beat.als"), fileEntry("X/Y/Z.als")});
    const Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->projectFolderPath(), "Users/ann/Beat Project");
    EXPECT_EQ(item->projectName(), "Beat Project");
}

TEST(DCIManifestV2ProjectItemTests, AbletonFolderFromTheName) {
    const std::vector<json> unhelpfulSessions = {
        json::array(), json::array({fileEntry("Beat.als")}), json::array({7, fileEntry("A/B.als")}), "A/B.als",
        json::array({{{"path", 3}}}),
    };
    for (const json& sessions : unhelpfulSessions) {
        json manifest = abletonManifest();
        manifest["path"] = "/Beat.als";
        manifest["files"]["session"] = sessions;
        const Manifest item = readAny(manifest);
        EXPECT_EQ(item->projectFolderPath(), "Beat Project") << sessions;
        EXPECT_EQ(item->projectName(), "Beat Project") << sessions;
    }
}

TEST(DCIManifestV2ProjectItemTests, AbletonFolderFromTheSetName) {
    json manifest = abletonManifest();
    manifest["path"] = "Bëat.als";
    manifest.erase("name");
    manifest.erase("files");
    const Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->projectFolderPath(), "Bëat");
    EXPECT_EQ(item->projectName(), "Bëat");

    manifest.erase("path");
    bool valid = true;
    EXPECT_EQ(readAny(manifest, &valid)->projectFolderPath(), "");
    EXPECT_FALSE(valid);
}

// The host may settle a folder itself, from the properties it has set and the manifest's text.
TEST(DCIManifestV2ProjectItemTests, DeterminesTheAbletonFolderOnRequest) {
    const Manifest item = DCIManifestV2ProjectItem::init();
    item->setProjectFolderPath("/Users/ann/./Beat Project/Beat.als");
    EXPECT_EQ(item->determineProjectFolderForAbletonProject("{}"), "Users/ann/Beat Project");
    EXPECT_EQ(item->projectFolderPath(), "Users/ann/Beat Project/Beat.als");
    EXPECT_EQ(item->projectName(), std::nullopt);

    item->setProjectFolderPath("Beat.als");
    const json files = {{"files", {{"session", json::array({fileEntry("/Sets/Beat Project/Beat.als")})}}}};
    EXPECT_EQ(item->determineProjectFolderForAbletonProject(files.dump()), "Sets/Beat Project");

    item->setProjectName("Beat Project");
    EXPECT_EQ(item->determineProjectFolderForAbletonProject("not json"), "Beat Project");

    item->setProjectName(std::nullopt);
    EXPECT_EQ(item->determineProjectFolderForAbletonProject("[]"), "Beat");
    EXPECT_EQ(item->projectName(), "Beat");
    EXPECT_EQ(item->projectFolderPath(), "Beat.als");
}

TEST(DCIManifestV2ProjectItemTests, FilesThatAreNoDictionary) {
    for (const json& files : std::vector<json>{json::array({fileEntry("a/b.wav")}), "files", 3}) {
        json manifest = logicManifest();
        manifest["files"] = files;
        LogSince log;
        const Manifest item = read(manifest);
        ASSERT_NE(item, nullptr) << files;
        EXPECT_TRUE(item->projectFiles().empty());
        EXPECT_TRUE(log.has("ERROR: 'files' is not a dictionary in the manifest")) << files;
    }
    json manifest = logicManifest();
    manifest["files"] = nullptr;
    LogSince log;
    ASSERT_NE(read(manifest), nullptr);
    EXPECT_FALSE(log.has("ERROR: 'files' is not a dictionary in the manifest"));
}

TEST(DCIManifestV2ProjectItemTests, SkipsCategoriesThatAreNoArray) {
    json manifest = abletonManifest();
    manifest["files"]["misc"] = "notes.txt";
    manifest["files"]["stems"] = nullptr;
    manifest["files"]["video"] = {{"path", "clip.mov"}};
    LogSince log;
    const Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(log.has("Unexpected values in manifest misc (string) : \"notes.txt\" (string)"));
    EXPECT_TRUE(log.has("Unexpected values in manifest video (string) : {\"path\":\"clip.mov\"} (object)"));
    EXPECT_EQ(log.text().find("Unexpected values in manifest stems"), std::string::npos);
    EXPECT_EQ(categoriesAndPaths(item), (Entries{{"samples", "Samples/kick.wav"}, {"session", "Beat.als"}}));
}

TEST(DCIManifestV2ProjectItemTests, SkipsElementsThatAreNoObject) {
    json manifest = logicManifest();
    manifest["files"]["samples"] = {fileEntry("a.wav"), 7, nullptr, json::array({1, "x"}), fileEntry("b.wav")};
    manifest["files"]["stems"] = {fileEntry("c.wav")};
    LogSince log;
    const Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_TRUE(log.has("Unexpected info in manifest 7 (number)"));
    EXPECT_TRUE(log.has("Unexpected info in manifest null (null)"));
    EXPECT_TRUE(log.has("Unexpected info in manifest [1,\"x\"] (array)"));
    // Any key is a category.
    EXPECT_EQ(categoriesAndPaths(item), (Entries{{"samples", "a.wav"}, {"samples", "b.wav"}, {"stems", "c.wav"}}));
}

TEST(DCIManifestV2ProjectItemTests, SkipsRefusedEntries) {
    json manifest = abletonManifest();
    manifest["files"]["samples"].push_back({{"path", "Samples/snare.wav"}});
    manifest["files"]["samples"].push_back(fileEntry("/Users/ann/Music/Beat Project/Samples/hat.wav"));
    EXPECT_EQ(categoriesAndPaths(read(manifest)),
              (Entries{{"samples", "Samples/kick.wav"}, {"samples", "Samples/hat.wav"}, {"session", "Beat.als"}}));
}

TEST(DCIManifestV2ProjectItemTests, EntriesAreRelativeToTheSettledFolder) {
    json manifest = logicManifest();
    manifest["files"]["samples"] = {fileEntry("Projects/Song/Audio/take 1.wav"), fileEntry("/Projects/Song/x.wav")};
    EXPECT_EQ(categoriesAndPaths(read(manifest)),
              (Entries{{"samples", "Audio/take 1.wav"}, {"samples", "x.wav"}}));
}

// A lookup may be a network query; a manifest may name the same user in every entry.
TEST(DCIManifestV2ProjectItemTests, LooksUpEachUserOncePerManifest) {
    json manifest = logicManifest();
    for (int i = 0; i < 20; ++i) {
        manifest["files"]["samples"].push_back(fileEntry("~root/" + std::to_string(i)));
        manifest["files"]["misc"].push_back(fileEntry("~no-such-kestly-user/" + std::to_string(i)));
    }
    userLookups = 0;
    const Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(userLookups, 2);
    EXPECT_EQ(item->projectFiles().size(), 40u);
    EXPECT_EQ(categoriesAndPaths(item).front(), Entries::value_type("misc", "~no-such-kestly-user/0"));
}

TEST(DCIManifestV2ProjectItemTests, AnInvalidManifestReadsNoEntries) {
    json manifest = abletonManifest();
    manifest.erase("uuid");
    manifest["files"]["samples"].push_back(fileEntry("Samples/nosize.wav", 0));
    LogSince log;
    bool valid = true;
    EXPECT_TRUE(readAny(manifest, &valid)->projectFiles().empty());
    EXPECT_FALSE(valid);
    EXPECT_EQ(log.text().find("No file size"), std::string::npos);
}

TEST(DCIManifestV2ProjectItemTests, ReadsFlags) {
    const std::vector<std::pair<json, bool>> rows = {
        {true, true}, {false, false}, {1, true}, {-2, true}, {0, false}, {0.5, true},
        {"true", false}, {nullptr, false}, {json::object(), false},
    };
    for (const auto& [value, expected] : rows) {
        json manifest = logicManifest();
        manifest["collaboration"] = value;
        manifest["contribution"] = value;
        const Manifest item = read(manifest);
        EXPECT_EQ(item->isCollaboration(), expected) << value;
        EXPECT_EQ(item->isContribution(), expected) << value;
    }
    const Manifest item = read(logicManifest());
    EXPECT_FALSE(item->isCollaboration());
    EXPECT_FALSE(item->isContribution());
}

TEST(DCIManifestV2ProjectItemTests, ReadsDatesWithEveryZoneForm) {
    const double at = 1399371630;  // 2014-05-06T10:20:30Z
    const std::vector<std::pair<std::string, double>> rows = {
        {"2014-05-06T10:20:30+0200", at - 7200},  {"2014-05-06T10:20:30-0130", at + 5400},
        {"2014-05-06T10:20:30+02:00", at - 7200}, {"2014-05-06T10:20:30-01:30", at + 5400},
        {"2014-05-06T10:20:30Z", at},             {"2014-05-06T10:20:30+0000", at},
        {"2014-05-06T00:20:30+0100", at - 36000 - 3600},
        {"2016-02-29T23:59:59-2359", 1456790399 + 86340},
        {"2200-01-01T00:00:00Z", 7258118400},
        {"1900-01-01T00:00:00Z", -2208988800},
    };
    for (const auto& [text, seconds] : rows) {
        json manifest = logicManifest();
        manifest["created_at"] = text;
        EXPECT_EQ(read(manifest)->dateCreated(), DCIDate::dateWithTimeIntervalSince1970(seconds)) << text;
    }
}

TEST(DCIManifestV2ProjectItemTests, OtherDateFormsAreNoDate) {
    const std::vector<json> rows = {
        "2014-05-06 10:20:30+0200", "2014-05-06T10:20:30",     "2014-05-06T10:20:30+02",
        "2014-05-06T10:20:30.5Z",   "2014-05-06T10:20:30z",    "2014-05-06T10:20:30+0200 ",
        "2014-13-06T10:20:30Z",     "2015-02-29T10:20:30Z",    "2014-05-06T24:00:00Z",
        "2014-05-06T10:60:30Z",     "2014-05-06T10:20:60Z",    "2014-05-06T10:20:30+2400",
        "2014-5-06T10:20:30Z",      "2014-05-06T10:20:30+02:0", "T10:20:30Z",
        "9999-12-31T23:59:59Z",     "0001-01-01T00:00:00Z",    "2262-04-12T00:00:00Z",
        "",                         1399371630,                json::object(),
    };
    LogSince log;
    for (const json& value : rows) {
        json manifest = logicManifest();
        manifest["created_at"] = value;
        const Manifest item = read(manifest);
        ASSERT_NE(item, nullptr) << value;
        EXPECT_EQ(item->dateCreated(), std::nullopt) << value;
    }
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
    EXPECT_EQ(read(logicManifest())->dateCreated(), std::nullopt);
}

TEST(DCIManifestV2ProjectItemTests, NoBytes) {
    LogSince log;
    EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(nullptr), nullptr);
    EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(bytes("")), nullptr);
    const std::string logged = log.text();
    const std::string line = ": ERROR in DCIManifestV2ProjectItem: JSON data is nil\n";
    const size_t first = logged.find(line);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(logged.find(line, first + 1), std::string::npos);
    EXPECT_EQ(logged.find("Parsing manifest information"), std::string::npos);
}

TEST(DCIManifestV2ProjectItemTests, BytesThatAreNoJSONObject) {
    const std::vector<std::string> rows = {
        "not json",
        "{\"uuid\": ",
        "[" + logicManifest().dump() + "]",
        "\"a string\"",
        "null",
        "{\"name\": \"B\xe9\"}",  // Latin-1, not UTF-8
        "{\"name\": \"\\ud800\"}",
        std::string(100000, '['),
        std::string(100000, '{'),
        logicManifest().dump() + " trailing",
    };
    for (const std::string& text : rows) {
        LogSince log;
        EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(bytes(text)), nullptr) << text.substr(0, 40);
        EXPECT_TRUE(log.has("Parsing manifest information (null)")) << text.substr(0, 40);
        EXPECT_NE(log.text().find(": ERROR in DCIManifestV2ProjectItem: Unable to parse json:\n"), std::string::npos);
    }
}

// The parser's error quotes the token it stopped in, which may be the rest of the input.
TEST(DCIManifestV2ProjectItemTests, TheParseErrorLineIsBounded) {
    LogSince log;
    EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(bytes("{\"name\": \"" + std::string(1 << 20, 'x'))), nullptr);
    EXPECT_LT(log.text().size(), 4096u);
}

TEST(DCIManifestV2ProjectItemTests, NestingUpToTheLimitIsRead) {
    json deep = "bottom";
    for (int level = 0; level < 63; ++level) deep = json::array({deep});
    json manifest = logicManifest();
    manifest["extra"] = deep;  // 64 levels with the top
    EXPECT_NE(read(manifest), nullptr);
    manifest["extra"] = json::array({deep});
    EXPECT_EQ(read(manifest), nullptr);
    // Brackets inside strings are text, not nesting.
    manifest["extra"] = std::string(1000, '[') + "\\\"{";
    EXPECT_NE(read(manifest), nullptr);
}

TEST(DCIManifestV2ProjectItemTests, RereadingRewritesPropertiesAndKeepsEntriesUntilValid) {
    const Manifest item = read(abletonManifest());
    ASSERT_NE(item, nullptr);
    ASSERT_EQ(item->projectFiles().size(), 2u);

    json invalid = logicManifest();
    invalid.erase("uuid");
    invalid["files"]["samples"] = {fileEntry("Projects/Song/a.wav")};
    EXPECT_FALSE(item->readJSON(bytes(invalid.dump())));
    EXPECT_EQ(item->projectName(), "Song");
    EXPECT_EQ(item->projectUUID(), std::nullopt);
    EXPECT_EQ(item->dateCreated(), std::nullopt);
    EXPECT_FALSE(item->isCollaboration());
    EXPECT_EQ(categoriesAndPaths(item), (Entries{{"samples", "Samples/kick.wav"}, {"session", "Beat.als"}}));

    EXPECT_FALSE(item->readJSON(bytes("{")));
    EXPECT_EQ(item->projectName(), "Song");

    invalid["uuid"] = "9c-uuid";
    EXPECT_TRUE(item->readJSON(bytes(invalid.dump())));
    EXPECT_EQ(categoriesAndPaths(item), (Entries{{"samples", "a.wav"}}));
}

TEST(DCIManifestV2ProjectItemTests, NeverReadIsEmpty) {
    const Manifest item = DCIManifestV2ProjectItem::init();
    EXPECT_TRUE(item->projectFiles().empty());
    EXPECT_EQ(item->creatorID(), 0u);
    EXPECT_EQ(item->projectName(), std::nullopt);
    EXPECT_EQ(item->dateCreated(), std::nullopt);
}

TEST(DCIManifestV2ProjectItemTests, SettersAreTheAccessorsCounterparts) {
    const Manifest item = DCIManifestV2ProjectItem::init();
    item->setIsCollaboration(true);
    item->setCreatorID(9);
    item->setProjectName("Name");
    item->setProjectFolderPath("Folder");
    item->setDateCreated(DCIDate::dateWithTimeIntervalSince1970(5));
    EXPECT_TRUE(item->isCollaboration());
    EXPECT_FALSE(item->isContribution());
    EXPECT_EQ(item->creatorID(), 9u);
    EXPECT_EQ(item->projectName(), "Name");
    EXPECT_EQ(item->projectFolderPath(), "Folder");
    EXPECT_EQ(item->dateCreated(), DCIDate::dateWithTimeIntervalSince1970(5));
}

// Another thread reads while the manifest is read again and again; each read it sees is one
// of the two manifests, whole.
TEST(DCIManifestV2ProjectItemTests, AccessorsAreSafeDuringARead) {
    ScopedEnvironment quiet("VERBOSE_LOGGING", "no");
    const auto first = bytes(abletonManifest().dump());
    json other = logicManifest();
    other["files"]["samples"] = {fileEntry("a.wav"), fileEntry("b.wav"), fileEntry("c.wav")};
    const auto second = bytes(other.dump());
    const Manifest item = DCIManifestV2ProjectItem::init();
    ASSERT_TRUE(item->readJSON(first));

    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            const auto name = item->projectName();
            const size_t files = item->projectFiles().size();
            EXPECT_TRUE(name == "Beat Project" || name == "Song") << name.value_or("(null)");
            EXPECT_TRUE(files == 2 || files == 3) << files;
        }
    });
    for (int i = 0; i < 200; ++i) EXPECT_TRUE(item->readJSON(i % 2 ? first : second));
    done = true;
    reader.join();
}

}  // namespace
