#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"

#include "support/LogReading.h"
#include "support/Testing.h"

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;
using Item = std::shared_ptr<DCIManifestV2ProjectFileItem>;

const std::string kFolder = "Users/ann/Music/Beat Project";

// A usable entry object: a hash, a size and a URL beside the path.
json entryWithPath(const std::string& path) {
    return {{"path", path}, {"file_hash", "9f86d081"}, {"file_size", 1234}, {"url", "https://cdn.example.com/f/1"}};
}

Item entry(const std::string& folder, const std::string& category, const json& attributes) {
    return DCIManifestV2ProjectFileItem::initWithProjectFolder(folder, category, attributes.dump());
}

// The usable entry with `key` set to `value`, or removed for null.
Item entryWith(const char* key, const json& value, const std::string& category = "samples") {
    json attributes = entryWithPath("Samples/kick.wav");
    if (value.is_null()) attributes.erase(key);
    else attributes[key] = value;
    return entry(kFolder, category, attributes);
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
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(std::tuple(item->category(), item->pathRelativeToProject(), item->fileHash(), item->fileSize(), item->sasID()),
              std::tuple("samples", "Samples/kick.wav", "9f86d081", UINT64_MAX, "  SAS/ïd 1 "));
    EXPECT_EQ(item->downloadURL(), "https://cdn.example.com/f/1?sig=a%2Fb#part");
    EXPECT_EQ(std::tuple(item->encoding(), item->decoded_hash(), item->decoded_size(), item->decoded_format()),
              std::tuple("flac", "e3b0c442", 99999u, "wav"));
}

// The path an entry gets relative to its project's folder, and the line that says so where one
// is due; without one, no error is logged, nor a warning outside the session category.
TEST(DCIManifestV2ProjectFileItemTests, PathsRelativeToTheProjectFolder) {
    struct Row {
        std::string folder, category, path, relative, logged = {};
    };
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
        const Item item = entry(row.folder, row.category, entryWithPath(row.path));
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
    struct Row {
        std::string folder, category, path, logged;
    };
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
        EXPECT_EQ(entry(row.folder, row.category, entryWithPath(row.path)), nullptr) << row.path;
        EXPECT_NE(log.text().find(": " + row.logged), std::string::npos) << row.path << log.text();
    }
    EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("/home/ann/Beat/", "S/..."), "/home/ann/Beat/S/...");
    EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("/", "a"), "/a");
    EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("", "a"), std::nullopt);
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
        EXPECT_EQ(item->encoding(), std::nullopt) << encoding;
        EXPECT_EQ(item->decoded_size(), 0u);
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
