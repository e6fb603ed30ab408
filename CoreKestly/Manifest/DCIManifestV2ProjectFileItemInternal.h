#pragma once

#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"

#include <nlohmann/json.hpp>

class DCIManifestPathCleaner;

/// Makes entries from parsed JSON objects, as the project manifest reads them, without
/// printing and parsing each object again.
class DCIManifestV2ProjectFileItemReader {
public:
    /// The entry made from `attributes`, or nullptr; see
    /// `DCIManifestV2ProjectFileItem::initWithProjectFolder`. `cleaner` cleans its path and
    /// is shared by the entries of one manifest.
    static std::shared_ptr<DCIManifestV2ProjectFileItem> read(std::string_view projectFolder, std::string_view category,
                                                              const nlohmann::json& attributes,
                                                              DCIManifestPathCleaner& cleaner);
};
