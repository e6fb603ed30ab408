#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/Manifest/DCIManifestJSONInternal.h"
#include "CoreKestly/Manifest/DCIManifestPathsInternal.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItemInternal.h"
#include "CoreKestly/Manifest/DCIManifestValuesInternal.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/Values/DCIUTF16Internal.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

using nlohmann::json;

namespace {

// The size a "misc" entry is given when the manifest has none.
constexpr uint64_t kDefaultMiscFileSize = 535;

// What is left of `path` once a match of the project folder ending at byte `matchEnd` and the
// one character after it (normally the separator) are dropped; nothing when that character is
// all there is. Lengths count UTF-16 code units, but the character dropped is a whole one.
std::optional<std::string> pathAfterFolderMatch(std::string_view path, size_t matchEnd) {
    const std::string_view rest = path.substr(matchEnd);
    if (DCIUTF16Length(rest) <= 1) return std::nullopt;
    return std::string(rest.substr(DCIUTF8CharacterLength(rest)));
}

bool hasSeveralComponents(std::string_view cleanedPath) { return cleanedPath.find('/') != std::string_view::npos; }

// A session file in a manifest written elsewhere may sit under another copy of the project
// folder ("Other Disk/Beat Project/Beat.als"), so the folder's own name is looked for.
std::string sessionPathRelativeToFolderName(const std::string& path, std::string_view folder,
                                            DCIManifestEntryLog& log) {
    log.error("WARNING: projectFolder = %@, session relative path = %@ - standard manifest path information not "
              "found, using other methods to determine the session file path.",
              DCILoggedText(folder), DCILoggedText(path));
    const std::string folderName = KestlyPath::lastComponent(folder);
    const size_t found = folderName.empty() ? std::string::npos : DCIManifestFind(path, folderName);
    if (found == std::string::npos) return path;
    log.info("The ALS file path (%@) appears to be longer than the project path (%@) - should be checked.",
             DCILoggedText(path), DCILoggedText(folder));
    if (auto relative = pathAfterFolderMatch(path, found + folderName.size())) return std::move(*relative);
    log.error("ERROR: unexpected paths found in manifest %@ and %@", DCILoggedText(folder),
              DCILoggedText(path));
    return path;
}

// The folder is matched as text, with no test of a component boundary; an empty folder
// matches nowhere, as the platform's prefix and substring searches find no empty string.
std::string pathRelativeToFolder(const std::string& path, std::string_view folder, std::string_view category,
                                 DCIManifestEntryLog& log) {
    if (!folder.empty() && path.starts_with(folder)) {
        if (auto relative = pathAfterFolderMatch(path, folder.size())) return std::move(*relative);
        log.error("ERROR: Unable to subtract the project folder from the ALS path %@ and %@",
                  DCILoggedText(folder), DCILoggedText(path));
        return path;
    }
    if (category == kDCIManifestCategorySession) return sessionPathRelativeToFolderName(path, folder, log);
    return path;
}

}  // namespace

std::string DCIManifestV2ProjectFileItem::cleanseManifestPath(std::optional<std::string_view> path) {
    return path ? DCIManifestPathCleaner().clean(*path) : "";
}

std::optional<std::string> DCIManifestV2ProjectFileItem::pathUnderFolder(std::string_view folder,
                                                                         std::string_view pathRelativeToProject) {
    if (folder.empty() || !DCIManifestIsPlainRelativePath(pathRelativeToProject)) return std::nullopt;
    return KestlyPath::appendingComponent(folder, pathRelativeToProject);
}

std::shared_ptr<DCIManifestV2ProjectFileItem> DCIManifestV2ProjectFileItem::initWithProjectFolder(
    std::string_view projectFolder, std::string_view category, std::string_view attributes) {
    const DCIManifestParse parsed = DCIManifestParseObject(attributes);
    if (!parsed.object) return nullptr;
    DCIManifestPathCleaner cleaner;
    DCIManifestEntryLog log;
    return DCIManifestV2ProjectFileItemReader::read(projectFolder, category, *parsed.object, cleaner, log);
}

std::string DCIManifestV2ProjectFileItem::description() const {
    return "<DCIManifestV2ProjectFileItem " + category_ + ": " + pathRelativeToProject_ + " (" +
           std::to_string(fileSize_) + " bytes)>";
}

std::shared_ptr<DCIManifestV2ProjectFileItem> DCIManifestV2ProjectFileItemReader::read(std::string_view projectFolder,
                                                                                     std::string_view category,
                                                                                     const json& attributes,
                                                                                     DCIManifestPathCleaner& cleaner,
                                                                                     DCIManifestEntryLog& log) {
    const std::string* hash = DCIManifestString(attributes, "file_hash");
    const std::string* givenPath = DCIManifestString(attributes, kManifestProjectFileItemPath);
    bool usable = hash && givenPath;
    std::string path = usable ? cleaner.clean(*givenPath) : givenPath ? *givenPath : std::string();
    if (givenPath && path == projectFolder) {
        log.error("ERROR: The project path %@ is the same as the ALS path - we can't handle this",
                  DCILoggedText(projectFolder));
        usable = false;
    } else if (usable && hasSeveralComponents(path)) {
        path = pathRelativeToFolder(path, projectFolder, category, log);
    }
    // These refusals log nothing of their own.
    const std::string* url = usable ? DCIManifestString(attributes, "url") : nullptr;
    if (!url || !DCIManifestIsURL(*url) || path.empty()) return nullptr;
    // Dropping the folder's text and one character can leave "/etc/..." or "../..." when the
    // folder ends inside a component, and the host joins this path to a folder of its own.
    if (!DCIManifestIsPlainRelativePath(path)) {
        log.error("ERROR: The manifest path %@ would leave the project folder %@ - skipping it",
                  DCILoggedText(path), DCILoggedText(projectFolder));
        return nullptr;
    }

    std::shared_ptr<DCIManifestV2ProjectFileItem> item(new DCIManifestV2ProjectFileItem);
    item->category_ = category;
    if (!hash->empty()) item->fileHash_ = *hash;
    item->fileSize_ = DCIManifestUnsigned(attributes, "file_size").value_or(0);
    item->pathRelativeToProject_ = std::move(path);
    item->sasID_ = DCIManifestOptionalString(attributes, "sas_id");
    item->downloadURL_ = *url;
    if (const json* encoding = DCIManifestValue(attributes, "encoding"); encoding && encoding->is_object()) {
        item->encoding_ = DCIManifestOptionalString(*encoding, "name");
        item->decoded_hash_ = DCIManifestOptionalString(*encoding, "decoded_hash");
        item->decoded_format_ = DCIManifestOptionalString(*encoding, "decoded_format");
        item->decoded_size_ = DCIManifestUnsigned(*encoding, "decoded_size").value_or(0);
    }
    if (item->fileSize_ == 0) {
        if (category == kDCIManifestCategoryMisc) {
            item->fileSize_ = kDefaultMiscFileSize;
        } else {
            log.error("ERROR: No file size set in manifest for %@", DCILoggedText(item->pathRelativeToProject_));
        }
    }
    return item;
}
