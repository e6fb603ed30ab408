#pragma once

#include <string_view>

// The library's exported keys: the keys of event and action context dictionaries and the
// names it publishes for its host. Dictionaries compare keys by value, so the literal text
// finds the same entry as the constant.

// Event context: the file and folder objects of change detection.
inline constexpr std::string_view kDCIFileObject = "DCIFileObject";
inline constexpr std::string_view kDCIFolderObject = "DCIFolderObject";
inline constexpr std::string_view kDCIOldFileObject = "DCIOldFileObject";
inline constexpr std::string_view kDCIOldFolderObject = "DCIOldFolderObject";

// Action context of the file operations; the move keys serve copies as well.
inline constexpr std::string_view kDCIFileManagerMoveFrom = "sourcePath";
inline constexpr std::string_view kDCIFileManagerMoveTo = "destPath";
inline constexpr std::string_view kDCIFileManagerCreatePath = "createPath";
/// Published for the host; the library does not use it.
inline constexpr std::string_view kDCIFileManagerFormat = "format";

/// Action context: the `DCIError` that tells why the action failed.
inline constexpr std::string_view kDCIError = "DCIError";

// Event context of the first scan's progress: the files of interest found and their bytes,
// and how many of each are hashed.
inline constexpr std::string_view kDCIFileManagerScanFilesKey = "scanFiles";
inline constexpr std::string_view kDCIFileManagerScanFilesHashedKey = "scanFilesHashed";
inline constexpr std::string_view kDCIFileManagerScanBytesKey = "scanBytes";
inline constexpr std::string_view kDCIFileManagerScanBytesHashedKey = "scanBytesHashed";

// Event context of a status change: the new status and the one before it.
inline constexpr std::string_view kDCIActionStatusKey = "DCIActionStatus";
inline constexpr std::string_view kDCIActionPreviousStatusKey = "DCIActionPreviousStatus";

// Action and event context of downloads.
inline constexpr std::string_view kDCIDownloaderDataKey = "data";
inline constexpr std::string_view kDCIDownloaderResponseStatusCodeKey = "statusCode";
inline constexpr std::string_view kDCIDownloaderFilePathKey = "downloadFilePath";
inline constexpr std::string_view kDCIDownloaderDownloaderKey = "downloader";
inline constexpr std::string_view kDCIDownloaderEtag = "downloaderEtag";
inline constexpr std::string_view kDCIDownloaderTotalDownloadSizeKey = "totalDownloadSize";
inline constexpr std::string_view kDCIDownloaderCurrentDownloadSizeKey = "currentDownloadSize";
inline constexpr std::string_view kDCIDownloaderRequestKey = "request";

// Published for the host; the library does not use them. The misspelt value is the one
// hosts already store.
inline constexpr std::string_view kDCIEventOpenWithAppIdentifier = "DCIEventOpenWithAppIdnetifier";
inline constexpr std::string_view kDCISettingName = "settingName";
inline constexpr std::string_view kDCISettingValue = "settingValue";
inline constexpr std::string_view kDCIEventStatusChangedTarget = "EventStatusChangedTarget";
inline constexpr std::string_view kDCIEventStatusChangedSelectorString = "EventStatusChangedSelectorString";

// The file categories of a version-2 project manifest, and the key of an entry's path.
inline constexpr std::string_view kDCIManifestCategorySession = "session";
inline constexpr std::string_view kDCIManifestCategorySamples = "samples";
inline constexpr std::string_view kDCIManifestCategoryMisc = "misc";
inline constexpr std::string_view kManifestProjectFileItemPath = "path";
