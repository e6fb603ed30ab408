#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// Translates a user-visible format, the key being the format itself; nothing keeps the key.
using DCILocalizedStringTable = std::function<std::optional<std::string>(std::string_view key)>;

/// Lets the host translate the library's user-visible messages, such as the text of a refused
/// status code. Any thread; an empty function removes the table.
KESTLY_EXPORT void DCISetLocalizedStringTable(DCILocalizedStringTable table);
/// The host's translation of `key`, else `key` itself.
KESTLY_EXPORT std::string DCILocalizedString(std::string_view key);
