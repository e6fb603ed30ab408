#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIObject.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// One file of a version-2 project manifest, read from its JSON object: where it lies inside
/// the project folder, its hash, size and `sasID`, where to download it from and, when it is
/// stored encoded, the encoding and what the decoded file is.
///
/// Paths are cleaned (`cleanseManifestPath`) and made relative to the project folder. A
/// path that begins with the folder's text loses it and the one character after it, whether
/// or not that character is a separator. A "session" path that does not begin with the folder
/// falls back to the folder's last component found anywhere in it. Lengths and positions are
/// those of UTF-16 strings, and a cut never falls inside a character. An entry whose path
/// is then no plain relative path ("/etc/x", "../x", "./x": the folder's text ended inside a
/// component) is refused with an error line, so that no entry leads out of the folder.
///
/// An entry is immutable once made, so it may be read from any thread.
class KESTLY_EXPORT DCIManifestV2ProjectFileItem : public DCIObject {
public:
    /// `path` as a plain relative path: standardised (a leading "~" expanded, "." and empty
    /// components removed, ".." resolved in an absolute path), then without any "/", "." or
    /// ".." component. "" for no path, "", "/" and anything else that leaves nothing.
    static std::string cleanseManifestPath(std::optional<std::string_view> path);

    /// `pathRelativeToProject` placed under the local folder `folder`, joined with one "/";
    /// nothing when `folder` is empty or the path is not the plain relative path that every
    /// entry has, which would lead out of `folder` or elsewhere. The only safe way to turn a
    /// path from a manifest into a local one. The path is judged as text: links that already
    /// exist below `folder` are the caller's to mind.
    static std::optional<std::string> pathUnderFolder(std::string_view folder, std::string_view pathRelativeToProject);

    /// The entry whose JSON object is the text `attributes`, listed under `category` in the
    /// manifest of the project folder `projectFolder`; nullptr when the text is not a JSON
    /// object or the entry is not usable: "path" or "file_hash" missing, "url" missing or not
    /// a URL, the cleaned path empty or equal to the project folder, or the final path not a
    /// plain relative path.
    static std::shared_ptr<DCIManifestV2ProjectFileItem> initWithProjectFolder(std::string_view projectFolder,
                                                                               std::string_view category,
                                                                               std::string_view attributes);

    /// The key of the "files" list the entry was listed under: "session", "samples", "misc"...
    const std::string& category() const { return category_; }
    /// "file_hash"; nothing when the manifest gives the empty string.
    const std::optional<std::string>& fileHash() const { return fileHash_; }
    /// "file_size"; when it is missing or 0, 535 for a "misc" entry and 0 for any other.
    uint64_t fileSize() const { return fileSize_; }
    /// The cleaned "path", relative to the project folder: one or more components joined by
    /// single "/", never empty, never beginning or ending with "/", with no "." or ".."
    /// component and no NUL byte. Place it under a local folder with `pathUnderFolder`.
    const std::string& pathRelativeToProject() const { return pathRelativeToProject_; }
    /// "sas_id", unchanged.
    const std::optional<std::string>& sasID() const { return sasID_; }
    /// "url", as given: an entry is made only when it is a URL (an RFC 3986 URI reference).
    const std::string& downloadURL() const { return downloadURL_; }
    /// "name" of the "encoding" object.
    const std::optional<std::string>& encoding() const { return encoding_; }
    /// "decoded_hash" of the "encoding" object.
    const std::optional<std::string>& decoded_hash() const { return decoded_hash_; }
    /// "decoded_size" of the "encoding" object; 0 when missing.
    uint64_t decoded_size() const { return decoded_size_; }
    /// "decoded_format" of the "encoding" object.
    const std::optional<std::string>& decoded_format() const { return decoded_format_; }

    /// "<DCIManifestV2ProjectFileItem category: path (size bytes)>"
    std::string description() const override;

private:
    friend class DCIManifestV2ProjectFileItemReader;
    DCIManifestV2ProjectFileItem() = default;

    std::string category_;
    std::optional<std::string> fileHash_;
    uint64_t fileSize_ = 0;
    std::string pathRelativeToProject_;
    std::optional<std::string> sasID_;
    std::string downloadURL_;
    std::optional<std::string> encoding_;
    std::optional<std::string> decoded_hash_;
    uint64_t decoded_size_ = 0;
    std::optional<std::string> decoded_format_;
};
