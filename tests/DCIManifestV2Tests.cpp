// Version-2 project manifests: the project's own fields, and each file entry's.

#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "support/LogReading.h"
#include "support/Testing.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using Manifest = std::shared_ptr<DCIManifestV2ProjectItem>;
using Item = std::shared_ptr<DCIManifestV2ProjectFileItem>;
using Entries = std::vector<std::pair<std::string, std::string>>;
using Changes = std::vector<std::pair<const char*, json>>;  // a null value removes the key

std::shared_ptr<const DCIData> bytes(std::string_view text) { return std::make_shared<const DCIData>(text); }

// A usable entry object: a hash, a size and a URL beside the path.
json fileEntry(const std::string& path, uint64_t size = 1234) {
    return {{"path", path}, {"file_hash", "9f86d081"}, {"file_size", size}, {"url", "https://cdn.example.com/f/1"}};
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

const std::string kFolder = "Users/ann/Music/Beat Project";

Item entry(const std::string& folder, const std::string& category, const json& attributes) {
    return DCIManifestV2ProjectFileItem::initWithProjectFolder(folder, category, attributes.dump());
}

// The usable entry with `key` set to `value`, or removed for null.
Item entryWith(const char* key, const json& value, const std::string& category = "samples") {
    return entry(kFolder, category, changed(fileEntry("Samples/kick.wav"), {{key, value}}));
}

TEST(DCIManifestV2ProjectItemTests, ReadsAnAbletonLiveProjectInAnyScriptAndLogsIt) {
    for (const std::string project : {"Beat Project", "Bëat Prøject", "ビート 🎵"}) {
        LogSince log;
        const Manifest manifest = read(abletonManifest(project));
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

// A long folder repeated in a line per entry, a long path, a long category: each is cut, and
// the lines of the entries end after a hundred.
TEST(DCIManifestV2ProjectItemTests, EveryLoggedValueIsShortened) {
    json manifest = changed(logicManifest(), {{"path", "Projects/" + std::string(100'000, 'F')}});
    const std::string longPath = "Other/" + std::string(5000, 'p');
    for (int i = 0; i < 1000; ++i) manifest["files"]["session"].push_back(fileEntry(longPath + std::to_string(i), 0));
    manifest["files"][std::string(5000, 'c')] = "no list";
    LogSince log;
    ASSERT_NE(read(manifest), nullptr);
    EXPECT_TRUE(log.has("Unexpected values in manifest " + std::string(1024, 'c') + "… (string) : \"no list\" (string)"));
    // The category's line comes first; each entry logs two, its folder not found and its missing size.
    EXPECT_EQ(log.count("ERROR: No file size set in manifest for " + longPath.substr(0, 1024) + "…"), 49u);
    EXPECT_TRUE(log.has("Further problems with the entries of this manifest are not logged"));
    EXPECT_LT(log.text().size(), 100u * 3072);
}

// Without a creator the manifest is refused; a flag is set by true or by a non-zero number.
TEST(DCIManifestV2ProjectItemTests, RequiredValuesTheCreatorAndTheFlags) {
    struct Row { Changes changes; std::optional<uint64_t> creator; bool flags = false; };
    const auto flags = [](const json& value) { return Changes{{"collaboration", value}, {"contribution", value}}; };
    const Row rows[] = {
        {{}, 12}, {{{"creator_id", 0}, {"CreatorId", 12}}, 12}, {{{"creator_id", nullptr}, {"CreatorId", 12}}, 12},
        {{{"creator_id", 5}, {"CreatorId", 12}}, 5}, {{{"creator_id", "5"}, {"CreatorId", 12}}, 12},
        {{{"creator_id", nullptr}}, {}}, {{{"creator_id", -4}}, {}}, {{{"creator_id", 4.5}}, {}},
        {{{"creator_id", true}}, {}}, {{{"username", nullptr}}, {}}, {{{"username", ""}}, {}},
        {{{"username", 7}}, {}}, {{{"uuid", ""}}, {}}, {{{"uuid", nullptr}}, {}}, {{{"uuid", json::array()}}, {}},
        {{{"path", nullptr}}, {}}, {{{"path", ""}}, {}}, {{{"path", 3}}, {}},
        {flags(true), 12, true}, {flags(false), 12}, {flags(1), 12, true}, {flags(-2), 12, true}, {flags(0), 12},
        {flags(0.5), 12, true}, {flags("true"), 12}, {flags(json::object()), 12},
    };
    for (const auto& [changes, creator, flag] : rows) {
        const json manifest = changed(logicManifest(), changes);
        const Manifest item = read(manifest);
        const auto found = item ? std::optional(std::tuple(item->creatorID(), item->isCollaboration(), item->isContribution()))
                                : std::nullopt;
        EXPECT_EQ(found, creator ? std::optional(std::tuple(*creator, flag, flag)) : std::nullopt) << manifest.dump();
    }
}

// The folder and the name as each project type settles them.
TEST(DCIManifestV2ProjectItemTests, SettlesTheFolderAndTheName) {
    struct Row { const char* why; json base; Changes changes; std::string folder; std::optional<std::string> name; };
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
        EXPECT_EQ(item->dateCreated(), seconds ? std::optional(DCIDate::dateWithTimeIntervalSince1970(*seconds))
                                               : std::nullopt) << value;
    }
    EXPECT_EQ(log.text().find("ERROR"), std::string::npos);
}

// Every refusal says why in one bounded line; the parser may quote the rest of the input.
TEST(DCIManifestV2ProjectItemTests, RefusesBytesThatAreNoJSONObject) {
    LogSince empty;
    EXPECT_FALSE(DCIManifestV2ProjectItem::initWithJSONData(nullptr) || DCIManifestV2ProjectItem::initWithJSONData(bytes("")));
    EXPECT_EQ(empty.count("ERROR in DCIManifestV2ProjectItem: JSON data is nil"), 2u);
    EXPECT_EQ(empty.text().find("Parsing manifest information"), std::string::npos);

    const std::string rows[] = {
        "not json", "{\"uuid\": ", "[" + logicManifest().dump() + "]", "\"a string\"", "null",
        "{\"name\": \"B\xe9\"}",  // Latin-1, not UTF-8
        "{\"name\": \"\\ud800\"}", std::string(100000, '['), std::string(100000, '{'),
        logicManifest().dump() + " trailing", "{\"name\": \"" + std::string(1 << 20, 'x'),
        changed(logicManifest(), {{"extra", std::vector<int>(2'000'000)}}).dump(),  // more values than a manifest may hold
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

TEST(DCIManifestV2ProjectFileItemTests, CleansePathTable) {
    const std::pair<std::string, std::string> rows[] = {
        {"/Users/ann/Music/Beat Project/Beat.als", "Users/ann/Music/Beat Project/Beat.als"},
        {"Samples/./kick.wav", "Samples/kick.wav"}, {"../Samples/kick.wav", "Samples/kick.wav"},
        {"Samples//kick.wav/", "Samples/kick.wav"}, {"a/../b", "a/b"}, {"/a/../b", "b"}, {"/../../a/./b//", "a/b"},
        {"./.././", ""}, {"/", ""}, {"", ""}, {"kick.wav", "kick.wav"},
        {"/Bëat Prøject/Sämples/kick 🎵.wav", "Bëat Prøject/Sämples/kick 🎵.wav"},
    };
    for (const auto& [given, cleaned] : rows) {
        EXPECT_EQ(DCIManifestV2ProjectFileItem::cleanseManifestPath(given), cleaned) << given;
    }
    EXPECT_EQ(DCIManifestV2ProjectFileItem::cleanseManifestPath(std::nullopt), "");
    ScopedEnvironment home("HOME", "/home/ann");
    EXPECT_EQ(DCIManifestV2ProjectFileItem::cleanseManifestPath("~/Music/../Beat.als"), "home/ann/Beat.als");
}

TEST(DCIManifestV2ProjectFileItemTests, ReadsEveryField) {
    const Item item = entry(kFolder, "samples",
                            {{"path", "/Users/ann/Music/Beat Project/Samples/kick.wav"}, {"file_hash", "9f86d081"},
                             {"file_size", UINT64_MAX}, {"sas_id", "  SAS/ïd 1 "},
                             {"url", "https://cdn.example.com/f/1?sig=a%2Fb#part"},
                             {"encoding", {{"name", "flac"}, {"decoded_hash", "e3b0c442"}, {"decoded_size", 99999},
                                           {"decoded_format", "wav"}}},
                             {"unknown_key", {1, 2, 3}}});
    EXPECT_EQ(std::tuple(item->category(), item->pathRelativeToProject(), item->fileHash(), item->fileSize(), item->sasID()),
              std::tuple("samples", "Samples/kick.wav", "9f86d081", UINT64_MAX, "  SAS/ïd 1 "));
    EXPECT_EQ(item->downloadURL(), "https://cdn.example.com/f/1?sig=a%2Fb#part");
    EXPECT_EQ(std::tuple(item->encoding(), item->decoded_hash(), item->decoded_size(), item->decoded_format()),
              std::tuple("flac", "e3b0c442", 99999u, "wav"));
}

// The path an entry gets relative to its project's folder, and the line that says so where one
// is due; without one, no error is logged, nor a warning outside the session category.
TEST(DCIManifestV2ProjectFileItemTests, PathsRelativeToTheProjectFolder) {
    struct Row { std::string folder, category, path, relative, logged = {}; };
    const std::string unmatched = "WARNING: projectFolder = Users/ann/Music/Beat Project, session relative path = ";
    const std::string unexpected = "ERROR: unexpected paths found in manifest Users/ann/Music/Beat Project and ";
    const Row rows[] = {
        {kFolder, "samples", "/Users/ann/Music/Beat Project/Samples/kick.wav", "Samples/kick.wav"},
        {kFolder, "misc", "Users/ann/Music/Beat Project/./Notes//todo.txt", "Notes/todo.txt"},
        // Matched as text: a sibling whose name extends the folder's loses the folder and one character.
        {"Beat", "samples", "Beatsx/kick.wav", "x/kick.wav"},
        {kFolder, "samples", "Elsewhere/kick.wav", "Elsewhere/kick.wav"},
        {kFolder, "samples", "Other Disk/Beat Project/kick.wav", "Other Disk/Beat Project/kick.wav"},
        {kFolder, "samples", "kick.wav", "kick.wav"}, {"kick", "samples", "/kick.wav", "kick.wav"},
        {"kick", "session", "kick.wav", "kick.wav"}, {"", "samples", "Samples/kick.wav", "Samples/kick.wav"},
        {"", "session", "Sets/Beat.als", "Sets/Beat.als"},
        {"Users/ann/Beat", "samples", "Users/ann/Beatx", "Users/ann/Beatx",
         "ERROR: Unable to subtract the project folder from the ALS path Users/ann/Beat and Users/ann/Beatx"},
        // Only a session entry falls back to the folder's name.
        {kFolder, "session", "Other Disk/Beat Project/Beat.als", "Beat.als",
         "The ALS file path (Other Disk/Beat Project/Beat.als) appears to be longer than the project path "
         "(Users/ann/Music/Beat Project) - should be checked."},
        {kFolder, "session", "Other Disk/Elsewhere/Beat.als", "Other Disk/Elsewhere/Beat.als",
         unmatched + "Other Disk/Elsewhere/Beat.als - standard manifest path information not found, using other "
                     "methods to determine the session file path."},
        {kFolder, "session", "Other Disk/Beat Project/", "Other Disk/Beat Project", unexpected + "Other Disk/Beat Project"},
        {kFolder, "session", "Other Disk/Beat Projectx", "Other Disk/Beat Projectx", unexpected + "Other Disk/Beat Projectx"},
        // Near misses before the name, which the search must not skip past, nor take their product of time over.
        {"x/abab", "session", "y/abaabab/z.als", "z.als"},
        {"x/" + std::string(20'000, 'a') + "b", "session", "y/" + std::string(40'000, 'a') + "b/z.als", "z.als"},
        // Lengths count UTF-16 units, as the platform's strings do, and never cut a character.
        {"Users/ann/Music/Bëat Prøject", "samples", "/Users/ann/Music/Bëat Prøject/Sämples/kick.wav", "Sämples/kick.wav"},
        {"Users/ann/Music/Bëat Prøject", "session", "Other Disk/Bëat Prøject/Bëat.als", "Bëat.als"},
        {"Bëat", "samples", "Bëatsx/kick.wav", "x/kick.wav"}, {"Beat", "samples", "Beatëx/kick.wav", "x/kick.wav"},
        {"Beat", "samples", "Beat🎵x/kick.wav", "x/kick.wav"},
        {kFolder, "session", "Disk/Beat Projectëx/Beat.als", "x/Beat.als"},
        {"Users/ann/Beat", "samples", "Users/ann/Beatë", "Users/ann/Beatë",
         "ERROR: Unable to subtract the project folder from the ALS path Users/ann/Beat and Users/ann/Beatë"},
        {"Users/ann/Beat", "samples", "Users/ann/Beat🎵", "(refused)"},  // nothing left: no path
    };
    for (const auto& row : rows) {
        LogSince log;
        const Item item = entry(row.folder, row.category, fileEntry(row.path));
        EXPECT_EQ(item ? item->pathRelativeToProject() : "(refused)", row.relative) << row.path;
        const std::string logged = log.text();
        if (!row.logged.empty()) {
            EXPECT_NE(logged.find(": " + row.logged), std::string::npos) << row.path << logged;
        } else {
            EXPECT_EQ(logged.find("ERROR"), std::string::npos) << row.path << logged;
            if (row.category != "session") {
                EXPECT_EQ(logged.find("WARNING"), std::string::npos) << row.path << logged;
            }
        }
    }
}

// Where the folder's text ends inside a component, what is left may lead out of any folder; so
// may a path the host joins to a folder of its own.
TEST(DCIManifestV2ProjectFileItemTests, NothingLeavesTheProjectFolder) {
    const std::string leaves = "ERROR: The manifest path ", same = "ERROR: The project path " + kFolder + " is the same";
    struct Row { std::string folder, category, path, logged; };
    const Row rows[] = {
        {kFolder, "samples", kFolder + ".../Other Project/Other.als", leaves + "../Other Project/Other.als"},
        {"Beat", "samples", "Beat.../escape.als", leaves + "../escape.als would leave the project folder Beat - skipping it"},
        {"Beat", "samples", "Beatx/etc/cron.d/evil", leaves + "/etc/cron.d/evil would leave the project folder Beat"},
        {"Beat", "samples", "Beats/kick.wav", leaves + "/kick.wav"}, {"Beat", "samples", "Beatx./kick.wav", leaves + "./kick.wav"},
        {"Music/Beat", "session", "Other/Beat.../x.als", leaves + "../x.als"},
        {"Music/Beat", "session", "Other/Beatx/x.als", leaves + "/x.als"},
        {kFolder, "session", "/Users/ann/Music/Beat Project", same + " as the ALS path - we can't handle this"},
        {kFolder, "samples", "Users/ann/Music/Beat Project/", same},
    };
    for (const auto& row : rows) {
        LogSince log;
        EXPECT_EQ(entry(row.folder, row.category, fileEntry(row.path)), nullptr) << row.path;
        EXPECT_NE(log.text().find(": " + row.logged), std::string::npos) << row.path << log.text();
    }
    const auto under = DCIManifestV2ProjectFileItem::pathUnderFolder;
    EXPECT_EQ(std::tuple(under("/home/ann/Beat/", "S/..."), under("/", "a"), under("", "a")),
              std::tuple("/home/ann/Beat/S/...", "/a", std::nullopt));
    for (const std::string& path :
         std::vector<std::string>{"", "/etc/x", "../x", "a/../../x", "./x", "a//b", "a/", std::string("..\0/x", 5)}) {
        EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("/p", path), std::nullopt) << path;
    }
}

TEST(DCIManifestV2ProjectFileItemTests, RefusesSilently) {
    const std::pair<const char*, json> refused[] = {
        {"path", nullptr}, {"file_hash", nullptr}, {"url", nullptr}, {"path", 7}, {"file_hash", 42}, {"url", 3},
        {"url", "https://cdn.example.com/a b"}, {"url", "https://cdn.example.com/a%2"}, {"url", ""},
        {"url", "1http://cdn.example.com/a"}, {"url", "https://cdn.example.com/a#b#c"}, {"path", "/../."},
    };
    LogSince log;
    for (const auto& [key, value] : refused) EXPECT_EQ(entryWith(key, value), nullptr) << key << " " << value;
    for (const char* text : {"", "[]", "\"path\"", "{\"path\": ", "nul", "{\"path\":\"\xff\"}"}) {
        EXPECT_EQ(DCIManifestV2ProjectFileItem::initWithProjectFolder(kFolder, "samples", text), nullptr) << text;
    }
    EXPECT_EQ(log.text(), "");
}

TEST(DCIManifestV2ProjectFileItemTests, OptionalFields) {
    EXPECT_EQ(entryWith("url", "files/kick.wav?v=2")->downloadURL(), "files/kick.wav?v=2");
    EXPECT_EQ(entryWith("file_hash", "")->fileHash(), std::nullopt);
    EXPECT_EQ(entryWith("sas_id", 17)->sasID(), std::nullopt);
    const Item partial = entryWith("encoding", {{"name", "flac"}, {"decoded_hash", 5}, {"decoded_format", nullptr}});
    EXPECT_EQ(std::tuple(partial->encoding(), partial->decoded_hash(), partial->decoded_format()),
              std::tuple("flac", std::nullopt, std::nullopt));
    for (const json& encoding : {json("flac"), json::array({"flac"})}) {
        const Item item = entryWith("encoding", encoding);
        EXPECT_EQ(std::pair(item->encoding(), item->decoded_size()), std::pair(std::optional<std::string>(), uint64_t{0})) << encoding;
    }
}

// A misc entry without a size gets a default silently; any other keeps zero and says so.
TEST(DCIManifestV2ProjectFileItemTests, EntriesWithoutASize) {
    const std::vector<json> sizes = {nullptr, 0, "1234", -5, 12.5, 1e3};
    LogSince misc;
    for (const json& size : sizes) EXPECT_EQ(entryWith("file_size", size, "misc")->fileSize(), 535u) << size;
    EXPECT_EQ(misc.text(), "");

    LogSince samples;
    for (const json& size : sizes) EXPECT_EQ(entryWith("file_size", size)->fileSize(), 0u) << size;
    EXPECT_EQ(samples.count("ERROR: No file size set in manifest for Samples/kick.wav"), sizes.size());
}

}  // namespace
