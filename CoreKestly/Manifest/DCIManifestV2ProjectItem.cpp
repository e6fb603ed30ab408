#include "CoreKestly/Manifest/DCIManifestV2ProjectItem.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/KestlyUtilities.h"
#include "CoreKestly/Manifest/DCIManifestJSONInternal.h"
#include "CoreKestly/Manifest/DCIManifestPathsInternal.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItemInternal.h"
#include "CoreKestly/Manifest/DCIManifestValuesInternal.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/Files/KestlyPath.h"

using nlohmann::json;

namespace {

using FileItems = std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>>;

bool isPresent(const std::optional<std::string>& text) { return text && !text->empty(); }

// The parent of a cleaned path: "" for a single component.
std::string cleanedParent(std::string_view path) {
    return KestlyPath::deletingLastComponent(DCIManifestV2ProjectFileItem::cleanseManifestPath(path));
}

// The path of the first "session" entry, which lies in the project folder.
const std::string* firstSessionPath(const json& manifest) {
    const json* files = DCIManifestValue(manifest, "files");
    if (!files || !files->is_object()) return nullptr;
    const json* sessions = DCIManifestValue(*files, kDCIManifestCategorySession);
    if (!sessions || !sessions->is_array() || sessions->empty() || !sessions->front().is_object()) return nullptr;
    return DCIManifestString(sessions->front(), kManifestProjectFileItemPath);
}

// An Ableton Live manifest's "path" names the set file, not the folder that holds it.
// `folderPath` is cleaned in place; `name` becomes the set's name when nothing better is known.
std::string abletonProjectFolder(const json& manifest, std::optional<std::string>& folderPath,
                                std::optional<std::string>& name) {
    folderPath = DCIManifestV2ProjectFileItem::cleanseManifestPath(folderPath);
    if (std::string parent = KestlyPath::deletingLastComponent(*folderPath); !parent.empty()) return parent;
    if (const std::string* sessionPath = firstSessionPath(manifest)) {
        if (std::string parent = cleanedParent(*sessionPath); !parent.empty()) return parent;
    }
    if (isPresent(name)) return *name;
    name = KestlyPath::deletingExtension(*folderPath);
    return *name;
}

FileItems readFileItems(const json& files, std::string_view projectFolder) {
    FileItems items;
    DCIManifestPathCleaner cleaner;
    DCIManifestEntryLog log;
    for (auto category = files.begin(); category != files.end(); ++category) {
        const json& list = category.value();
        if (list.is_null()) continue;
        if (!list.is_array()) {
            log.error("Unexpected values in manifest %@ (%@) : %@ (%@)", DCILoggedText(category.key()), "string",
                      DCIManifestJSONDescription(list), list.type_name());
            continue;
        }
        for (const json& element : list) {
            if (!element.is_object()) {
                log.error("Unexpected info in manifest %@ (%@)", DCIManifestJSONDescription(element), element.type_name());
                continue;
            }
            if (auto item = DCIManifestV2ProjectFileItemReader::read(projectFolder, category.key(), element, cleaner, log)) {
                items.push_back(std::move(item));
            }
        }
    }
    return items;
}

}  // namespace

std::shared_ptr<DCIManifestV2ProjectItem> DCIManifestV2ProjectItem::init() {
    return std::shared_ptr<DCIManifestV2ProjectItem>(new DCIManifestV2ProjectItem);
}

std::shared_ptr<DCIManifestV2ProjectItem> DCIManifestV2ProjectItem::initWithJSONData(
    const std::shared_ptr<const DCIData>& data) {
    auto manifest = init();
    return manifest->readJSON(data) ? manifest : nullptr;
}

bool DCIManifestV2ProjectItem::readJSON(const std::shared_ptr<const DCIData>& data) {
    if (!data || data->length() == 0) {
        DCLogError("ERROR in DCIManifestV2ProjectItem: JSON data is nil");
        return false;
    }
    const DCIManifestParse parsed = DCIManifestParseObject(data->stringView());
    if (!parsed.object) {
        DCLogInfo("Parsing manifest information %@", nullptr);
        DCLogError("ERROR in DCIManifestV2ProjectItem: Unable to parse json:\n%@", parsed.error);
        return false;
    }
    const json& manifest = *parsed.object;
    DCLogInfo("Parsing manifest information %@", DCIManifestJSONDescription(manifest));

    Properties read;
    read.isCollaboration = DCIManifestFlag(manifest, "collaboration");
    read.isContribution = DCIManifestFlag(manifest, "contribution");
    if (const std::string* createdAt = DCIManifestString(manifest, "created_at")) {
        read.dateCreated = DCIManifestDateFromString(*createdAt);
    }
    read.creatorID = DCIManifestUnsigned(manifest, "creator_id").value_or(0);
    if (read.creatorID == 0) read.creatorID = DCIManifestUnsigned(manifest, "CreatorId").value_or(0);
    read.projectName = DCIManifestOptionalString(manifest, "name");
    read.projectFolderPath = DCIManifestOptionalString(manifest, "path");
    read.projectOwner = DCIManifestOptionalString(manifest, "username");
    read.projectUUID = DCIManifestOptionalString(manifest, "uuid");
    read.projectRevisionUUID = DCIManifestOptionalString(manifest, "revision_uuid");
    read.projectPreviousRevisionUUID = DCIManifestOptionalString(manifest, "previous_revision_uuid");
    read.projectType = DCIManifestOptionalString(manifest, "project_type");

    const json* files = DCIManifestValue(manifest, "files");
    if (files && !files->is_object()) {
        DCLogError("ERROR: 'files' is not a dictionary in the manifest");
        files = nullptr;
    }
    if (DCIKestlyDAWFromString(read.projectType) == DCIKestlyDAWAbleton) {
        read.projectFolderPath = abletonProjectFolder(manifest, read.projectFolderPath, read.projectName);
    }
    if (!isPresent(read.projectName) && read.projectFolderPath) {
        read.projectName = KestlyPath::lastComponent(*read.projectFolderPath);
    }

    const bool valid = isValid(read);
    FileItems items;
    if (valid && files) items = readFileItems(*files, *read.projectFolderPath);

    std::lock_guard lock(mutex_);
    properties_ = std::move(read);
    if (valid) internalProjectFiles_ = std::move(items);
    return valid;
}

bool DCIManifestV2ProjectItem::isValid(const Properties& properties) {
    return properties.creatorID != 0 && isPresent(properties.projectName) && isPresent(properties.projectFolderPath) &&
           isPresent(properties.projectOwner) && isPresent(properties.projectUUID);
}

std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>> DCIManifestV2ProjectItem::projectFiles() const {
    std::lock_guard lock(mutex_);
    return internalProjectFiles_;
}

void DCIManifestV2ProjectItem::setInternalProjectFiles(
    std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>> files) {
    std::lock_guard lock(mutex_);
    internalProjectFiles_ = std::move(files);
}

std::string DCIManifestV2ProjectItem::determineProjectFolderForAbletonProject(std::string_view manifestJSON) {
    const json manifest = DCIManifestParseObject(manifestJSON).object.value_or(json::object());
    std::lock_guard lock(mutex_);
    return abletonProjectFolder(manifest, properties_.projectFolderPath, properties_.projectName);
}

std::string DCIManifestV2ProjectItem::description() const {
    std::lock_guard lock(mutex_);
    return "<DCIManifestV2ProjectItem " + properties_.projectName.value_or("(null)") + " (" +
           properties_.projectUUID.value_or("(null)") + "), " + std::to_string(internalProjectFiles_.size()) +
           " files>";
}
