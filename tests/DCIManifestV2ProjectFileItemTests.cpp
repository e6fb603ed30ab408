#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"

#include "support/LogReading.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

// The relative path an entry at `path` gets, or nothing when it is refused.
std::optional<std::string> relativePath(const std::string& folder, const std::string& category,
                                        const std::string& path) {
    const Item item = entry(folder, category, entryWithPath(path));
    return item ? std::optional(item->pathRelativeToProject()) : std::nullopt;
}

TEST(DCIManifestV2ProjectFileItemTests, CleansePathTable) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"/Users/ann/Music/Beat Project/Beat.als", "Users/ann/Music/Beat Project/Beat.als"},
        {"Samples/./kick.wav", "Samples/kick.wav"},
        {"../Samples/kick.wav", "Samples/kick.wav"},
        {"Samples//kick.wav/", "Samples/kick.wav"},
        {"a/../b", "a/b"},
        {"/a/../b", "b"},
        {"/../../a/./b//", "a/b"},
        {"./.././", ""},
        {"/", ""},
        {"", ""},
        {"kick.wav", "kick.wav"},
        {"/Bëat Prøject/Sämples/kick 🎵.wav", "Bëat Prøject/Sämples/kick 🎵.wav"},
    };
    for (const auto& [given, cleaned] : rows) {
        EXPECT_EQ(DCIManifestV2ProjectFileItem::cleanseManifestPath(given), cleaned) << given;
    }
    EXPECT_EQ(DCIManifestV2ProjectFileItem::cleanseManifestPath(std::nullopt), "");
}

TEST(DCIManifestV2ProjectFileItemTests, CleansePathExpandsTheHomeFolder) {
    ScopedEnvironment home("HOME", "/home/ann");
    EXPECT_EQ(DCIManifestV2ProjectFileItem::cleanseManifestPath("~/Music/../Beat.als"), "home/ann/Beat.als");
}

TEST(DCIManifestV2ProjectFileItemTests, ReadsEveryField) {
    const Item item = entry(kFolder, "samples",
                            {{"path", "/Users/ann/Music/Beat Project/Samples/kick.wav"},
                             {"file_hash", "9f86d081"},
                             {"file_size", 1234},
                             {"sas_id", "sas-77"},
                             {"url", "https://cdn.example.com/f/1?sig=a%2Fb#part"},
                             {"encoding",
                              {{"name", "flac"}, {"decoded_hash", "e3b0c442"}, {"decoded_size", 99999},
                               {"decoded_format", "wav"}}},
                             {"unknown_key", {1, 2, 3}}});
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->category(), "samples");
    EXPECT_EQ(item->pathRelativeToProject(), "Samples/kick.wav");
    EXPECT_EQ(item->fileHash(), "9f86d081");
    EXPECT_EQ(item->fileSize(), 1234u);
    EXPECT_EQ(item->sasID(), "sas-77");
    EXPECT_EQ(item->downloadURL(), "https://cdn.example.com/f/1?sig=a%2Fb#part");
    EXPECT_EQ(item->encoding(), "flac");
    EXPECT_EQ(item->decoded_hash(), "e3b0c442");
    EXPECT_EQ(item->decoded_size(), 99999u);
    EXPECT_EQ(item->decoded_format(), "wav");
}

TEST(DCIManifestV2ProjectFileItemTests, StripsTheProjectFolder) {
    EXPECT_EQ(relativePath(kFolder, "samples", "/Users/ann/Music/Beat Project/Samples/kick.wav"), "Samples/kick.wav");
    EXPECT_EQ(relativePath(kFolder, "misc", "Users/ann/Music/Beat Project/./Notes//todo.txt"), "Notes/todo.txt");
    // Matched as text: a sibling folder whose name extends the project's loses the folder
    // and the one character after it all the same.
    EXPECT_EQ(relativePath("Beat", "samples", "Beatsx/kick.wav"), "x/kick.wav");
    EXPECT_EQ(relativePath(kFolder, "samples", "Elsewhere/kick.wav"), "Elsewhere/kick.wav");
    EXPECT_EQ(relativePath(kFolder, "samples", "Other Disk/Beat Project/kick.wav"), "Other Disk/Beat Project/kick.wav");
}

TEST(DCIManifestV2ProjectFileItemTests, LeavesASingleComponentAlone) {
    EXPECT_EQ(relativePath(kFolder, "samples", "kick.wav"), "kick.wav");
    EXPECT_EQ(relativePath("kick", "samples", "/kick.wav"), "kick.wav");
    EXPECT_EQ(relativePath("kick", "session", "kick.wav"), "kick.wav");
}

TEST(DCIManifestV2ProjectFileItemTests, KeepsAPathNoLongerThanTheFolderAndOneCharacter) {
    LogSince log;
    EXPECT_EQ(relativePath("Users/ann/Beat", "samples", "Users/ann/Beatx"), "Users/ann/Beatx");
    EXPECT_TRUE(log.has("ERROR: Unable to subtract the project folder from the ALS path Users/ann/Beat and "
                        "Users/ann/Beatx"));
}

TEST(DCIManifestV2ProjectFileItemTests, AnEmptyFolderMatchesNowhere) {
    EXPECT_EQ(relativePath("", "samples", "Samples/kick.wav"), "Samples/kick.wav");
    EXPECT_EQ(relativePath("", "session", "Sets/Beat.als"), "Sets/Beat.als");
}

TEST(DCIManifestV2ProjectFileItemTests, SessionFallsBackToTheFolderName) {
    LogSince log;
    EXPECT_EQ(relativePath(kFolder, "session", "Other Disk/Beat Project/Beat.als"), "Beat.als");
    EXPECT_TRUE(log.has("WARNING: projectFolder = Users/ann/Music/Beat Project, session relative path = Other "
                        "Disk/Beat Project/Beat.als - standard manifest path information not found, using other "
                        "methods to determine the session file path."));
    EXPECT_TRUE(log.has("The ALS file path (Other Disk/Beat Project/Beat.als) appears to be longer than the project "
                        "path (Users/ann/Music/Beat Project) - should be checked."));
    EXPECT_LT(log.text().find("WARNING: projectFolder"), log.text().find("The ALS file path"));
}

TEST(DCIManifestV2ProjectFileItemTests, SessionFallbackWithoutTheFolderNameKeepsThePath) {
    LogSince log;
    EXPECT_EQ(relativePath(kFolder, "session", "Other Disk/Elsewhere/Beat.als"), "Other Disk/Elsewhere/Beat.als");
    EXPECT_TRUE(log.has("WARNING: projectFolder = Users/ann/Music/Beat Project, session relative path = Other "
                        "Disk/Elsewhere/Beat.als - standard manifest path information not found, using other "
                        "methods to determine the session file path."));
    EXPECT_EQ(log.text().find("appears to be longer"), std::string::npos);
}

TEST(DCIManifestV2ProjectFileItemTests, SessionFallbackEndingAtTheFolderNameKeepsThePath) {
    LogSince log;
    EXPECT_EQ(relativePath(kFolder, "session", "Other Disk/Beat Project/"), "Other Disk/Beat Project");
    EXPECT_TRUE(log.has("ERROR: unexpected paths found in manifest Users/ann/Music/Beat Project and Other "
                        "Disk/Beat Project"));
    EXPECT_EQ(relativePath(kFolder, "session", "Other Disk/Beat Projectx"), "Other Disk/Beat Projectx");
    EXPECT_TRUE(log.has("ERROR: unexpected paths found in manifest Users/ann/Music/Beat Project and Other "
                        "Disk/Beat Projectx"));
}

// Near misses before the folder's name, which the search must not skip past, nor take their
// product of time over.
TEST(DCIManifestV2ProjectFileItemTests, SessionFallbackFindsTheNameAfterNearMisses) {
    EXPECT_EQ(relativePath("x/abab", "session", "y/abaabab/z.als"), "z.als");
    const std::string name = std::string(20'000, 'a') + "b";
    EXPECT_EQ(relativePath("x/" + name, "session", "y/" + std::string(40'000, 'a') + "b/z.als"), "z.als");
}

TEST(DCIManifestV2ProjectFileItemTests, OnlySessionEntriesFallBack) {
    LogSince log;
    EXPECT_EQ(relativePath(kFolder, "samples", "Other Disk/Beat Project/kick.wav"), "Other Disk/Beat Project/kick.wav");
    EXPECT_EQ(log.text().find("WARNING"), std::string::npos);
}

// Lengths and positions are counted as the platform's UTF-16 strings count them, and a
// character is never cut.
TEST(DCIManifestV2ProjectFileItemTests, NonASCIINamesStripLikeASCIIOnes) {
    const std::string folder = "Users/ann/Music/Bëat Prøject";
    EXPECT_EQ(relativePath(folder, "samples", "/Users/ann/Music/Bëat Prøject/Sämples/kick.wav"), "Sämples/kick.wav");
    EXPECT_EQ(relativePath(folder, "session", "Other Disk/Bëat Prøject/Bëat.als"), "Bëat.als");
    EXPECT_EQ(relativePath("Bëat", "samples", "Bëatsx/kick.wav"), "x/kick.wav");
}

TEST(DCIManifestV2ProjectFileItemTests, TheCharacterAfterTheFolderIsDroppedWhole) {
    EXPECT_EQ(relativePath("Beat", "samples", "Beatëx/kick.wav"), "x/kick.wav");
    EXPECT_EQ(relativePath("Beat", "samples", "Beat🎵x/kick.wav"), "x/kick.wav");
    EXPECT_EQ(relativePath(kFolder, "session", "Disk/Beat Projectëx/Beat.als"), "x/Beat.als");
}

// Where the folder's text ends inside a component, what is left may lead out of any folder
// the host joins it to.
TEST(DCIManifestV2ProjectFileItemTests, RefusesPathsThatWouldLeaveTheFolder) {
    LogSince log;
    EXPECT_EQ(relativePath(kFolder, "samples", kFolder + ".../Other Project/Other.als"), std::nullopt);
    for (const char* path : {"Beat.../escape.als", "Beatx/etc/cron.d/evil", "Beats/kick.wav", "Beatx./kick.wav"}) {
        EXPECT_EQ(relativePath("Beat", "samples", path), std::nullopt) << path;
    }
    for (const char* path : {"Other/Beat.../x.als", "Other/Beatx/x.als"}) {
        EXPECT_EQ(relativePath("Music/Beat", "session", path), std::nullopt) << path;
    }
    EXPECT_TRUE(log.has("ERROR: The manifest path ../escape.als would leave the project folder Beat - skipping it"));
    EXPECT_TRUE(log.has("ERROR: The manifest path /etc/cron.d/evil would leave the project folder Beat - skipping it"));
}

TEST(DCIManifestV2ProjectFileItemTests, PlacesPathsOnlyUnderTheFolder) {
    EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("/home/ann/Beat/", "S/..."), "/home/ann/Beat/S/...");
    EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("/", "a"), "/a");
    EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("", "a"), std::nullopt);
    for (const std::string& path :
         std::vector<std::string>{"", "/etc/x", "../x", "a/../../x", "./x", "a//b", "a/", std::string("..\0/x", 5)}) {
        EXPECT_EQ(DCIManifestV2ProjectFileItem::pathUnderFolder("/p", path), std::nullopt) << path;
    }
}

TEST(DCIManifestV2ProjectFileItemTests, OneNonASCIICharacterAfterTheFolderIsOneUnit) {
    LogSince log;
    // Two bytes but one UTF-16 unit: no longer than the folder and one character.
    EXPECT_EQ(relativePath("Users/ann/Beat", "samples", "Users/ann/Beatë"), "Users/ann/Beatë");
    EXPECT_TRUE(log.has("ERROR: Unable to subtract the project folder from the ALS path Users/ann/Beat and "
                        "Users/ann/Beatë"));
    // Two units, one character: dropping it leaves nothing, and an entry without a path is refused.
    EXPECT_EQ(relativePath("Users/ann/Beat", "samples", "Users/ann/Beat🎵"), std::nullopt);
}

TEST(DCIManifestV2ProjectFileItemTests, RefusesAPathEqualToTheFolder) {
    LogSince log;
    EXPECT_EQ(relativePath(kFolder, "session", "/Users/ann/Music/Beat Project"), std::nullopt);
    EXPECT_EQ(relativePath(kFolder, "samples", "Users/ann/Music/Beat Project/"), std::nullopt);
    EXPECT_EQ(log.count("ERROR: The project path Users/ann/Music/Beat Project is the same as the ALS path - we "
                        "can't handle this"),
              2u);
}

TEST(DCIManifestV2ProjectFileItemTests, RefusesSilently) {
    const json usable = entryWithPath("Samples/kick.wav");
    const auto without = [&](const char* key) {
        json attributes = usable;
        attributes.erase(key);
        return attributes;
    };
    const auto with = [&](const char* key, json value) {
        json attributes = usable;
        attributes[key] = std::move(value);
        return attributes;
    };
    const std::vector<std::pair<std::string, json>> refused = {
        {"no path", without("path")},
        {"no file_hash", without("file_hash")},
        {"no url", without("url")},
        {"path a number", with("path", 7)},
        {"path null", with("path", nullptr)},
        {"file_hash a number", with("file_hash", 42)},
        {"file_hash null", with("file_hash", nullptr)},
        {"url a number", with("url", 3)},
        {"url with a space", with("url", "https://cdn.example.com/a b")},
        {"url with a bad escape", with("url", "https://cdn.example.com/a%2")},
        {"url with a bad scheme", with("url", "1http://cdn.example.com/a")},
        {"url with two fragments", with("url", "https://cdn.example.com/a#b#c")},
        {"url empty", with("url", "")},
        {"path cleaned to nothing", with("path", "/../.")},
    };
    LogSince log;
    for (const auto& [why, attributes] : refused) EXPECT_EQ(entry(kFolder, "samples", attributes), nullptr) << why;
    EXPECT_EQ(log.text(), "");
}

TEST(DCIManifestV2ProjectFileItemTests, RefusesTextThatIsNoObject) {
    for (const char* text : {"", "[]", "\"path\"", "{\"path\": ", "nul", "{\"path\":\"\xff\"}"}) {
        EXPECT_EQ(DCIManifestV2ProjectFileItem::initWithProjectFolder(kFolder, "samples", text), nullptr) << text;
    }
}

TEST(DCIManifestV2ProjectFileItemTests, AcceptsRelativeURLs) {
    json attributes = entryWithPath("Samples/kick.wav");
    attributes["url"] = "files/kick.wav?v=2";
    const Item item = entry(kFolder, "samples", attributes);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->downloadURL(), "files/kick.wav?v=2");
}

TEST(DCIManifestV2ProjectFileItemTests, AnEmptyHashIsNoHash) {
    json attributes = entryWithPath("Samples/kick.wav");
    attributes["file_hash"] = "";
    const Item item = entry(kFolder, "samples", attributes);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->fileHash(), std::nullopt);
}

TEST(DCIManifestV2ProjectFileItemTests, MiscEntriesWithoutASizeGetTheDefaultSilently) {
    json attributes = entryWithPath("Notes/todo.txt");
    attributes.erase("file_size");
    LogSince log;
    const Item item = entry(kFolder, "misc", attributes);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->fileSize(), 535u);
    attributes["file_size"] = 0;
    EXPECT_EQ(entry(kFolder, "misc", attributes)->fileSize(), 535u);
    EXPECT_EQ(log.text(), "");
}

TEST(DCIManifestV2ProjectFileItemTests, OtherEntriesWithoutASizeKeepZeroAndSaySo) {
    LogSince log;
    const std::vector<json> sizes = {nullptr, 0, "1234", -5, 12.5, 1e3};
    for (const json& size : sizes) {
        json attributes = entryWithPath("Samples/kick.wav");
        attributes["file_size"] = size;
        const Item item = entry(kFolder, "samples", attributes);
        ASSERT_NE(item, nullptr) << size;
        EXPECT_EQ(item->fileSize(), 0u) << size;
    }
    EXPECT_EQ(log.count("ERROR: No file size set in manifest for Samples/kick.wav"), sizes.size());
}

TEST(DCIManifestV2ProjectFileItemTests, KeepsTheLargestSizes) {
    json attributes = entryWithPath("Samples/kick.wav");
    attributes["file_size"] = UINT64_MAX;
    EXPECT_EQ(entry(kFolder, "samples", attributes)->fileSize(), UINT64_MAX);
}

TEST(DCIManifestV2ProjectFileItemTests, EncodingOfOtherShapes) {
    json attributes = entryWithPath("Samples/kick.wav");
    attributes["encoding"] = {{"name", "flac"}, {"decoded_hash", 5}, {"decoded_format", nullptr}};
    const Item partial = entry(kFolder, "samples", attributes);
    ASSERT_NE(partial, nullptr);
    EXPECT_EQ(partial->encoding(), "flac");
    EXPECT_EQ(partial->decoded_hash(), std::nullopt);
    EXPECT_EQ(partial->decoded_format(), std::nullopt);
    EXPECT_EQ(partial->decoded_size(), 0u);

    for (const json& encoding : std::vector<json>{"flac", json::array({"flac"}), nullptr}) {
        attributes["encoding"] = encoding;
        const Item item = entry(kFolder, "samples", attributes);
        ASSERT_NE(item, nullptr) << encoding;
        EXPECT_EQ(item->encoding(), std::nullopt) << encoding;
        EXPECT_EQ(item->decoded_hash(), std::nullopt);
        EXPECT_EQ(item->decoded_format(), std::nullopt);
        EXPECT_EQ(item->decoded_size(), 0u);
    }
}

TEST(DCIManifestV2ProjectFileItemTests, SasIDIsKeptUnchanged) {
    json attributes = entryWithPath("Samples/kick.wav");
    attributes["sas_id"] = "  SAS/ïd 1 ";
    EXPECT_EQ(entry(kFolder, "samples", attributes)->sasID(), "  SAS/ïd 1 ");
    attributes["sas_id"] = 17;
    EXPECT_EQ(entry(kFolder, "samples", attributes)->sasID(), std::nullopt);
    attributes.erase("sas_id");
    EXPECT_EQ(entry(kFolder, "samples", attributes)->sasID(), std::nullopt);
}

}  // namespace
