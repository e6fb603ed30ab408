#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"
#include "CoreKestly/Platform/Values/DCIData.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A project, or one revision of it, as the service describes it in a version-2 project
/// manifest (JSON): its name and folder, creator and owner, identifiers and revision chain,
/// type, flags, creation date, and one `DCIManifestV2ProjectFileItem` per file it lists.
///
/// The manifest comes from the network, so any bytes at all are read without harm: what is
/// not a JSON object is refused like bytes that are not JSON, and a value of another JSON type
/// than the format gives (null included) counts as missing.
///
/// For an Ableton Live project the manifest's "path" names the set file, and the folder is
/// derived from it: its parent, else the parent of the first "session" entry's path, else the
/// "name", else the path without its extension (which then names the project too). For any
/// other type "path" is the folder as given. A missing or empty "name" becomes the folder's
/// last component.
///
/// Every accessor is atomic: a manifest may be read, and its properties set, from any thread.
class KESTLY_EXPORT DCIManifestV2ProjectItem : public DCIObject {
public:
    /// A manifest with nothing read: no files, no names, creator 0.
    static std::shared_ptr<DCIManifestV2ProjectItem> init();
    /// The manifest read from `data` by `readJSON`, or nullptr when that answers false.
    static std::shared_ptr<DCIManifestV2ProjectItem> initWithJSONData(const std::shared_ptr<const DCIData>& data);

    /// Parses `data` and fills the manifest; answers whether it is valid: `creatorID` not 0 and
    /// `projectName`, `projectFolderPath`, `projectOwner` and `projectUUID` present and not
    /// empty. Every property it reaches is set even when it answers false; the file entries
    /// are read, and replace those of an earlier read, only for a valid manifest. Bytes that
    /// are not a JSON object (no bytes, empty data included) change nothing.
    bool readJSON(const std::shared_ptr<const DCIData>& data);

    /// "collaboration": JSON true or a number other than 0.
    bool isCollaboration() const { return get(&Properties::isCollaboration); }
    void setIsCollaboration(bool value) { set(&Properties::isCollaboration, value); }
    /// "contribution": JSON true or a number other than 0.
    bool isContribution() const { return get(&Properties::isContribution); }
    void setIsContribution(bool value) { set(&Properties::isContribution, value); }
    /// "created_at", "yyyy-MM-ddTHH:mm:ss" with a zone of +hhmm, -hhmm, +hh:mm, -hh:mm or Z;
    /// nothing when missing or of another form.
    std::optional<DCIDate> dateCreated() const { return get(&Properties::dateCreated); }
    void setDateCreated(std::optional<DCIDate> value) { set(&Properties::dateCreated, value); }
    /// "creator_id", or "CreatorId" when that gives 0; integers only.
    uint64_t creatorID() const { return get(&Properties::creatorID); }
    void setCreatorID(uint64_t value) { set(&Properties::creatorID, value); }
    /// "name", or derived from the folder.
    std::optional<std::string> projectName() const { return get(&Properties::projectName); }
    void setProjectName(std::optional<std::string> value) { set(&Properties::projectName, std::move(value)); }
    /// "path", or for an Ableton Live project the folder derived from it (cleaned).
    std::optional<std::string> projectFolderPath() const { return get(&Properties::projectFolderPath); }
    void setProjectFolderPath(std::optional<std::string> value) {
        set(&Properties::projectFolderPath, std::move(value));
    }
    /// "username".
    std::optional<std::string> projectOwner() const { return get(&Properties::projectOwner); }
    void setProjectOwner(std::optional<std::string> value) { set(&Properties::projectOwner, std::move(value)); }
    /// "uuid".
    std::optional<std::string> projectUUID() const { return get(&Properties::projectUUID); }
    void setProjectUUID(std::optional<std::string> value) { set(&Properties::projectUUID, std::move(value)); }
    /// "revision_uuid".
    std::optional<std::string> projectRevisionUUID() const { return get(&Properties::projectRevisionUUID); }
    void setProjectRevisionUUID(std::optional<std::string> value) {
        set(&Properties::projectRevisionUUID, std::move(value));
    }
    /// "previous_revision_uuid".
    std::optional<std::string> projectPreviousRevisionUUID() const {
        return get(&Properties::projectPreviousRevisionUUID);
    }
    void setProjectPreviousRevisionUUID(std::optional<std::string> value) {
        set(&Properties::projectPreviousRevisionUUID, std::move(value));
    }
    /// "project_type": "ableton" or "logic" in any case, or another application's name.
    std::optional<std::string> projectType() const { return get(&Properties::projectType); }
    void setProjectType(std::optional<std::string> value) { set(&Properties::projectType, std::move(value)); }

    /// The entries of the last valid read, category by category in the order of their names,
    /// each category's entries in the manifest's order; empty before any valid read.
    std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>> projectFiles() const;
    /// The store behind `projectFiles`, which each valid read replaces.
    std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>> internalProjectFiles() const { return projectFiles(); }
    void setInternalProjectFiles(std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>> files);

    /// Settles the folder of an Ableton Live project from the manifest's top-level object, given
    /// as JSON text (text that is no object counts as an object without "files"). Cleans
    /// `projectFolderPath` and stores it back, then answers its parent; else the parent of the
    /// first "session" entry's path; else `projectName`; else the cleaned path without its
    /// extension, which then becomes `projectName` too. `readJSON` stores the answer as
    /// `projectFolderPath`.
    std::string determineProjectFolderForAbletonProject(std::string_view manifestJSON);

    /// "<DCIManifestV2ProjectItem name (uuid), N files>"
    std::string description() const override;

private:
    struct Properties {
        bool isCollaboration = false;
        bool isContribution = false;
        std::optional<DCIDate> dateCreated;
        uint64_t creatorID = 0;
        std::optional<std::string> projectName;
        std::optional<std::string> projectFolderPath;
        std::optional<std::string> projectOwner;
        std::optional<std::string> projectUUID;
        std::optional<std::string> projectRevisionUUID;
        std::optional<std::string> projectPreviousRevisionUUID;
        std::optional<std::string> projectType;
    };

    DCIManifestV2ProjectItem() = default;

    static bool isValid(const Properties& properties);

    template <class T>
    T get(T Properties::*property) const {
        std::lock_guard lock(mutex_);
        return properties_.*property;
    }
    template <class T>
    void set(T Properties::*property, T value) {
        std::lock_guard lock(mutex_);
        properties_.*property = std::move(value);
    }

    mutable std::mutex mutex_;  // guards everything below
    Properties properties_;
    std::vector<std::shared_ptr<DCIManifestV2ProjectFileItem>> internalProjectFiles_;
};
