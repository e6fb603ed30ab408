#pragma once

#include <string>
#include <string_view>

/// `text` as a terminal may show it: what would act on the terminal instead of showing (C0
/// and C1 controls, DEL, the marks that reorder the text after them) written as \u{HH}, bytes
/// that are not UTF-8 as \xHH, and "\\" doubled so that an escape cannot be forged. Names from
/// disk or a file then cannot move the cursor, recolour the screen or forge a line.
std::string terminalText(std::string_view text);

/// Whether `character`, one character as `DCIUTF8CharacterLength` cuts it, cannot be shown
/// as it is: it acts on the terminal, or it is a byte that is not UTF-8.
bool needsTerminalEscape(std::string_view character);

/// Whether `text` is well-formed UTF-8 throughout.
bool isUTF8(std::string_view text);
