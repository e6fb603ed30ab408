#pragma once

#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Manifest/DCIManifestV2ProjectFileItem.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string_view>

class DCIManifestPathCleaner;

/// The log lines of one manifest's entries: the first `kLoggedLines`, then one saying that
/// the rest are left out, so that a manifest of millions of bad entries cannot fill the disk
/// (about 40 bytes of log for each byte of manifest).
class DCIManifestEntryLog {
public:
    static constexpr size_t kLoggedLines = 100;

    template <class... Args>
    void error(std::string_view format, const Args&... args) {
        if (admit()) DCLogError(format, args...);
    }
    template <class... Args>
    void info(std::string_view format, const Args&... args) {
        if (admit()) DCLogInfo(format, args...);
    }

private:
    bool admit() {
        if (lines_ > kLoggedLines) return false;
        if (++lines_ <= kLoggedLines) return true;
        DCLogError("Further problems with the entries of this manifest are not logged");
        return false;
    }

    size_t lines_ = 0;
};

/// Makes entries from parsed JSON objects, as the project manifest reads them, without
/// printing and parsing each object again.
class DCIManifestV2ProjectFileItemReader {
public:
    /// The entry made from `attributes`, or nullptr; see
    /// `DCIManifestV2ProjectFileItem::initWithProjectFolder`. `cleaner` cleans its path and
    /// `log` takes its log lines; both are shared by the entries of one manifest.
    static std::shared_ptr<DCIManifestV2ProjectFileItem> read(std::string_view projectFolder, std::string_view category,
                                                              const nlohmann::json& attributes,
                                                              DCIManifestPathCleaner& cleaner, DCIManifestEntryLog& log);
};
