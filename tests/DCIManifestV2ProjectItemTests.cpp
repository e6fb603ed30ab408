#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "support/LogReading.h"
#include "support/Testing.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using Manifest = std::shared_ptr<DCIManifestV2ProjectItem>;
using Entries = std::vector<std::pair<std::string, std::string>>;
using Changes = std::vector<std::pair<const char*, json>>;  // a null value removes the key

std::shared_ptr<const DCIData> bytes(std::string_view text) { return std::make_shared<const DCIData>(text); }

json fileEntry(const std::string& path, uint64_t size = 1000) {
    return {{"path", path}, {"file_hash", "ab12"}, {"file_size", size}, {"url", "https://cdn.example.com/files/7f3a"}};
}

// A valid Ableton Live manifest of the project folder /Users/ann/Music/<project>.
json abletonManifest(const std::string& project = "Beat Project") {
    const std::string folder = "/Users/ann/Music/" + project;
    return {{"collaboration", true}, {"contribution", false}, {"created_at", "2014-05-06T10:20:30+0000"},
            {"creator_id", 4711}, {"name", project}, {"path", folder + "/Beat.als"}, {"username", "ann"},
            {"uuid", "5b1e-uuid"}, {"revision_uuid", "5b1e-rev-2"}, {"previous_revision_uuid", "5b1e-rev-1"},
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

json changed(json manifest, const Changes& changes) {
    for (const auto& [key, value] : changes) {
        if (value.is_null()) manifest.erase(key);
        else manifest[key] = value;
    }
    return manifest;
}

Manifest read(const json& manifest) { return DCIManifestV2ProjectItem::initWithJSONData(bytes(manifest.dump())); }

// Reads `manifest` into a fresh object whatever its validity.
Manifest readAny(const json& manifest) {
    Manifest item = DCIManifestV2ProjectItem::init();
    item->readJSON(bytes(manifest.dump()));
    return item;
}

Entries categoriesAndPaths(const Manifest& manifest) {
    Entries entries;
    for (const auto& file : manifest->projectFiles()) entries.emplace_back(file->category(), file->pathRelativeToProject());
    return entries;
}

TEST(DCIManifestV2ProjectItemTests, ReadsAnAbletonLiveProjectInAnyScriptAndLogsIt) {
    for (const std::string project : {"Beat Project", "Bëat Prøject", "ビート 🎵"}) {
        LogSince log;
        const Manifest manifest = read(abletonManifest(project));
        ASSERT_NE(manifest, nullptr) << project;
        EXPECT_NE(log.text().find(": Parsing manifest information {\"collaboration\":true,"), std::string::npos);
        EXPECT_EQ(std::tuple(manifest->isCollaboration(), manifest->isContribution(), manifest->dateCreated(),
                             manifest->creatorID(), manifest->projectName(), manifest->projectFolderPath()),
                  std::tuple(true, false, DCIDate::dateWithTimeIntervalSince1970(1399371630), 4711u, project,
                             "Users/ann/Music/" + project));
        EXPECT_EQ(std::tuple(manifest->projectOwner(), manifest->projectUUID(), manifest->projectRevisionUUID(),
                             manifest->projectPreviousRevisionUUID(), manifest->projectType()),
                  std::tuple("ann", "5b1e-uuid", "5b1e-rev-2", "5b1e-rev-1", "ableton"));
        // Categories in the order of their names.
        EXPECT_EQ(categoriesAndPaths(manifest), (Entries{{"samples", "Samples/kick.wav"}, {"session", "Beat.als"}}));
    }
}

// A long folder repeated in a line per entry, a long path, a long category: each is cut.
TEST(DCIManifestV2ProjectItemTests, EveryLoggedValueIsShortened) {
    json manifest = changed(logicManifest(), {{"path", "Projects/" + std::string(100'000, 'F')}});
    const std::string longPath = "Other/" + std::string(5000, 'p');
    for (int i = 0; i < 50; ++i) manifest["files"]["session"].push_back(fileEntry(longPath + std::to_string(i), 0));
    manifest["files"][std::string(5000, 'c')] = "no list";
    LogSince log;
    ASSERT_NE(read(manifest), nullptr);
    EXPECT_EQ(log.count("ERROR: No file size set in manifest for " + longPath.substr(0, 1024) + "…"), 50u);
    EXPECT_TRUE(log.has("Unexpected values in manifest " + std::string(1024, 'c') + "… (string) : \"no list\" (string)"));
    EXPECT_LT(log.text().size(), 50u * 4096);  // two lines an entry, each value at most 1 KiB
}

TEST(DCIManifestV2ProjectItemTests, RequiredValuesAndTheCreator) {
    const std::pair<Changes, std::optional<uint64_t>> rows[] = {  // no creator: the manifest is refused
        {{}, 12}, {{{"creator_id", 0}, {"CreatorId", 12}}, 12}, {{{"creator_id", nullptr}, {"CreatorId", 12}}, 12},
        {{{"creator_id", 5}, {"CreatorId", 12}}, 5}, {{{"creator_id", "5"}, {"CreatorId", 12}}, 12},
        {{{"creator_id", nullptr}}, {}}, {{{"creator_id", -4}}, {}}, {{{"creator_id", 4.5}}, {}},
        {{{"creator_id", true}}, {}}, {{{"username", nullptr}}, {}}, {{{"username", ""}}, {}},
        {{{"username", 7}}, {}}, {{{"uuid", ""}}, {}}, {{{"uuid", nullptr}}, {}}, {{{"uuid", json::array()}}, {}},
        {{{"path", nullptr}}, {}}, {{{"path", ""}}, {}}, {{{"path", 3}}, {}},
    };
    for (const auto& [changes, creator] : rows) {
        const json manifest = changed(logicManifest(), changes);
        const Manifest item = read(manifest);
        EXPECT_EQ(item ? std::optional(item->creatorID()) : std::nullopt, creator) << manifest.dump();
    }
}

// The folder and the name as each project type settles them.
TEST(DCIManifestV2ProjectItemTests, SettlesTheFolderAndTheName) {
    struct Row {
        const char* why;
        json base;
        Changes changes;
        std::string folder;
        std::optional<std::string> name;
    };
    const json unnamed = nullptr;
    const Row rows[] = {
        {"no name: the folder's", logicManifest(), {{"name", unnamed}}, "Projects/Song", "Song"},
        {"empty name, untidy folder", logicManifest(), {{"path", "/Projects/Sóng//"}, {"name", ""}}, "/Projects/Sóng//", "Sóng"},
        {"name not text", logicManifest(), {{"path", "/Projects/Sóng//"}, {"name", 42}}, "/Projects/Sóng//", "Sóng"},
        {"type in capitals", abletonManifest(), {{"project_type", "ABLETON"}}, "Users/ann/Music/Beat Project", "Beat Project"},
        {"another type", abletonManifest(), {{"project_type", "Ableton Live"}}, "/Users/ann/Music/Beat Project/Beat.als", "Beat Project"},
        {"first session entry", abletonManifest(),
         {{"path", "Beat.als"},
          {"files", {{"session", {fileEntry("/Users/ann/Beat Project/Beat.als"), fileEntry("X/Y/Z.als")}}}}},
         "Users/ann/Beat Project", "Beat Project"},
        {"set name", abletonManifest(), {{"path", "Bëat.als"}, {"name", unnamed}, {"files", unnamed}}, "Bëat", "Bëat"},
        {"nothing to go by", abletonManifest(), {{"path", unnamed}, {"name", unnamed}, {"files", unnamed}}, "", ""},
    };
    for (const auto& row : rows) {
        const Manifest item = readAny(changed(row.base, row.changes));
        EXPECT_EQ(item->projectFolderPath(), row.folder) << row.why;
        EXPECT_EQ(item->projectName(), row.name) << row.why;
    }
    // Sessions that cannot name the folder leave the project's name to do it.
    for (const json& sessions : std::vector<json>{json::array(), json::array({fileEntry("Beat.als")}),
                                                  json::array({7, fileEntry("A/B.als")}), "A/B.als",
                                                  json::array({{{"path", 3}}})}) {
        json manifest = changed(abletonManifest(), {{"path", "/Beat.als"}});
        manifest["files"]["session"] = sessions;
        EXPECT_EQ(readAny(manifest)->projectFolderPath(), "Beat Project") << sessions;
    }
    // The host may settle a folder itself, from the properties it has set and the manifest's text.
    const Manifest item = DCIManifestV2ProjectItem::init();
    item->setProjectFolderPath("/Users/ann/./Beat Project/Beat.als");
    EXPECT_EQ(item->determineProjectFolderForAbletonProject("{}"), "Users/ann/Beat Project");
    EXPECT_EQ(item->projectFolderPath(), "Users/ann/Beat Project/Beat.als");
    item->setProjectFolderPath("Beat.als");
    const json files = {{"files", {{"session", json::array({fileEntry("/Sets/Beat Project/Beat.als")})}}}};
    EXPECT_EQ(item->determineProjectFolderForAbletonProject(files.dump()), "Sets/Beat Project");
    EXPECT_EQ(item->determineProjectFolderForAbletonProject("not json"), "Beat");
    EXPECT_EQ(item->projectName(), "Beat");
}

TEST(DCIManifestV2ProjectItemTests, EntriesOfOddShapesAreSkippedAndSaidSo) {
    for (const json& files : std::vector<json>{json::array({fileEntry("a/b.wav")}), "files", 3, nullptr}) {
        LogSince log;
        const Manifest item = read(changed(logicManifest(), {{"files", files}}));
        ASSERT_NE(item, nullptr) << files;
        EXPECT_TRUE(item->projectFiles().empty());
        EXPECT_EQ(log.has("ERROR: 'files' is not a dictionary in the manifest"), !files.is_null()) << files;
    }

    json manifest = abletonManifest();
    manifest["files"]["misc"] = "notes.txt";
    manifest["files"]["stems"] = nullptr;
    manifest["files"]["video"] = {{"path", "clip.mov"}};
    manifest["files"]["samples"] = {fileEntry("Users/ann/Music/Beat Project/Audio/take 1.wav"), 7, nullptr,
                                    json::array({1, "x"}), {{"path", "Samples/snare.wav"}}, fileEntry("b.wav")};
    LogSince log;
    const Manifest item = read(manifest);
    ASSERT_NE(item, nullptr);
    for (const char* line : {"Unexpected values in manifest misc (string) : \"notes.txt\" (string)",
                             "Unexpected values in manifest video (string) : {\"path\":\"clip.mov\"} (object)",
                             "Unexpected info in manifest 7 (number)", "Unexpected info in manifest null (null)",
                             "Unexpected info in manifest [1,\"x\"] (array)"}) {
        EXPECT_TRUE(log.has(line)) << line;
    }
    EXPECT_EQ(log.text().find("Unexpected values in manifest stems"), std::string::npos);
    EXPECT_EQ(categoriesAndPaths(item),
              (Entries{{"samples", "Audio/take 1.wav"}, {"samples", "b.wav"}, {"session", "Beat.als"}}));
}

// Seconds since 1970, or nothing for a form that is no date; neither is logged as an error.
TEST(DCIManifestV2ProjectItemTests, ReadsFlags) {
    const std::pair<json, bool> rows[] = {
        {true, true}, {false, false}, {1, true}, {-2, true}, {0, false}, {0.5, true},
        {"true", false}, {nullptr, false}, {json::object(), false},
    };
    for (const auto& [value, expected] : rows) {
        const Manifest item = read(changed(logicManifest(), {{"collaboration", value}, {"contribution", value}}));
        EXPECT_EQ(item->isCollaboration(), expected) << value;
        EXPECT_EQ(item->isContribution(), expected) << value;
    }
}

TEST(DCIManifestV2ProjectItemTests, ReadsDatesWithEveryZoneFormAndNoOtherForm) {
    const double at = 1399371630;  // 2014-05-06T10:20:30Z
    const std::pair<json, std::optional<double>> rows[] = {
        {"2014-05-06T10:20:30+0200", at - 7200},  {"2014-05-06T10:20:30-0130", at + 5400},
        {"2014-05-06T10:20:30+02:00", at - 7200}, {"2014-05-06T10:20:30-01:30", at + 5400},
        {"2014-05-06T10:20:30Z", at},             {"2014-05-06T00:20:30+0100", at - 36000 - 3600},
        {"2016-02-29T23:59:59-2359", 1456790399 + 86340},
        {"2200-01-01T00:00:00Z", 7258118400},     {"1900-01-01T00:00:00Z", -2208988800},
        {"2014-05-06 10:20:30+0200", {}}, {"2014-05-06T10:20:30", {}},      {"2014-05-06T10:20:30+02", {}},
        {"2014-05-06T10:20:30.5Z", {}},   {"2014-05-06T10:20:30z", {}},     {"2014-05-06T10:20:30+0200 ", {}},
        {"2014-13-06T10:20:30Z", {}},     {"2015-02-29T10:20:30Z", {}},     {"2014-05-06T24:00:00Z", {}},
        {"2014-05-06T10:60:30Z", {}},     {"2014-05-06T10:20:60Z", {}},     {"2014-05-06T10:20:30+2400", {}},
        {"2014-5-06T10:20:30Z", {}},      {"2014-05-06T10:20:30+02:0", {}}, {"T10:20:30Z", {}},
        {"9999-12-31T23:59:59Z", {}},     {"0001-01-01T00:00:00Z", {}},     {"2262-04-12T00:00:00Z", {}},
        {"", {}}, {1399371630, {}}, {json::object(), {}}, {nullptr, {}},
    };
    LogSince log;
    for (const auto& [value, seconds] : rows) {
        const Manifest item = read(changed(logicManifest(), {{"created_at", value}}));
        ASSERT_NE(item, nullptr) << value;
        EXPECT_EQ(item->dateCreated(), seconds ? std::optional(DCIDate::dateWithTimeIntervalSince1970(*seconds))
                                               : std::nullopt) << value;
    }
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
}

// Every refusal says why in one bounded line; the parser may quote the rest of the input.
TEST(DCIManifestV2ProjectItemTests, RefusesBytesThatAreNoJSONObject) {
    LogSince empty;
    EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(nullptr), nullptr);
    EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(bytes("")), nullptr);
    EXPECT_EQ(empty.count("ERROR in DCIManifestV2ProjectItem: JSON data is nil"), 2u);
    EXPECT_EQ(empty.text().find("Parsing manifest information"), std::string::npos);

    const std::string rows[] = {
        "not json", "{\"uuid\": ", "[" + logicManifest().dump() + "]", "\"a string\"", "null",
        "{\"name\": \"B\xe9\"}",  // Latin-1, not UTF-8
        "{\"name\": \"\\ud800\"}", std::string(100000, '['), std::string(100000, '{'),
        logicManifest().dump() + " trailing", "{\"name\": \"" + std::string(1 << 20, 'x'),
    };
    for (const std::string& text : rows) {
        LogSince log;
        EXPECT_EQ(DCIManifestV2ProjectItem::initWithJSONData(bytes(text)), nullptr) << text.substr(0, 40);
        EXPECT_TRUE(log.has("Parsing manifest information (null)")) << text.substr(0, 40);
        EXPECT_NE(log.text().find(": ERROR in DCIManifestV2ProjectItem: Unable to parse json:\n"), std::string::npos);
        EXPECT_LT(log.text().size(), 4096u);
    }
}

TEST(DCIManifestV2ProjectItemTests, NestingUpToTheLimitIsRead) {
    json deep = "bottom";
    for (int level = 0; level < 63; ++level) deep = json::array({deep});
    EXPECT_NE(read(changed(logicManifest(), {{"extra", deep}})), nullptr);  // 64 levels with the top
    EXPECT_EQ(read(changed(logicManifest(), {{"extra", json::array({deep})}})), nullptr);
    // Brackets inside strings are text, not nesting.
    EXPECT_NE(read(changed(logicManifest(), {{"extra", std::string(1000, '[') + "\\\"{"}})), nullptr);
}

// An invalid manifest rewrites the properties but neither reads nor logs its entries: the
// last valid ones stay.
TEST(DCIManifestV2ProjectItemTests, RereadingRewritesPropertiesAndKeepsEntriesUntilValid) {
    const Manifest item = read(abletonManifest());
    ASSERT_NE(item, nullptr);
    json invalid = changed(logicManifest(), {{"uuid", nullptr}});
    invalid["files"]["samples"] = {fileEntry("Projects/Song/a.wav"), fileEntry("Projects/Song/nosize.wav", 0)};
    LogSince log;
    EXPECT_FALSE(item->readJSON(bytes(invalid.dump())));
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
    EXPECT_EQ(std::tuple(item->projectName(), item->projectFolderPath(), item->projectUUID(), item->dateCreated(),
                         item->isCollaboration()),
              std::tuple("Song", "Projects/Song", std::nullopt, std::nullopt, false));
    EXPECT_EQ(categoriesAndPaths(item), (Entries{{"samples", "Samples/kick.wav"}, {"session", "Beat.als"}}));

    EXPECT_FALSE(item->readJSON(bytes("{")));
    EXPECT_EQ(item->projectName(), "Song");
    invalid["uuid"] = "9c-uuid";
    EXPECT_TRUE(item->readJSON(bytes(invalid.dump())));
    EXPECT_EQ(categoriesAndPaths(item), (Entries{{"samples", "a.wav"}, {"samples", "nosize.wav"}}));
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

    whileRepeatedOnThreads(1, [&] {
        const auto name = item->projectName();
        const size_t files = item->projectFiles().size();
        EXPECT_TRUE(name == "Beat Project" || name == "Song") << name.value_or("(null)");
        EXPECT_TRUE(files == 2 || files == 3) << files;
    }, [&] {
        for (int i = 0; i < 200; ++i) EXPECT_TRUE(item->readJSON(i % 2 ? first : second));
    });
}

}  // namespace
