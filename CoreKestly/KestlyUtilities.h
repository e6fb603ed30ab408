#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIValue.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The audio workstation application (DAW) a project belongs to.
using DCIKestlyDAW = uint64_t;

inline constexpr DCIKestlyDAW DCIKestlyDAWUnknown = 0;
inline constexpr DCIKestlyDAW DCIKestlyDAWAbleton = 1;
inline constexpr DCIKestlyDAW DCIKestlyDAWLogic = 2;

/// The code of a DAW's name, compared without regard to case: "ableton" and "logic" are
/// known; any other text, and no text at all, gives `DCIKestlyDAWUnknown`.
KESTLY_EXPORT DCIKestlyDAW DCIKestlyDAWFromString(std::optional<std::string_view> text);
/// As above; a null pointer counts as no text.
KESTLY_EXPORT DCIKestlyDAW DCIKestlyDAWFromString(const char* text);

/// "ableton", "logic", or "Unknown" for `DCIKestlyDAWUnknown` and any code beyond the known ones.
KESTLY_EXPORT std::string DCIKestlyDAWAsString(DCIKestlyDAW daw);

/// The value itself, or the shared null value when there is none, for storing a value that may
/// be missing in a collection.
KESTLY_EXPORT DCIValue KSTMakeNull(const std::optional<DCIValue>& value);

/// Deletes the folder at `path` when it is empty, then each ancestor that its deletion leaves
/// empty, ending at the first that still holds anything (hidden files count), at "/", or,
/// for a relative path, when no component is left. A path to nothing or to a file deletes
/// nothing; a folder that cannot be listed or deleted ends the walk. Never removes a folder
/// that is not empty, even one that fills up while the walk runs.
KESTLY_EXPORT void RemoveEmptyFoldersUnderPath(std::string_view path);
