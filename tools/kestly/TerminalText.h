#pragma once

#include <string>
#include <string_view>

/// `text` safe to print on a terminal: control characters (C0, DEL and the UTF-8 encoded C1
/// range) and backslashes become \xNN escapes, so that names from disk or a file cannot move
/// the cursor, recolour the screen or forge a line.
inline std::string printableText(std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string printable;
    printable.reserve(text.size());
    auto escape = [&](unsigned char byte) {
        printable += "\\x";
        printable += kHex[byte >> 4];
        printable += kHex[byte & 15];
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool c1 = byte == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                        static_cast<unsigned char>(text[i + 1]) <= 0x9f;
        if (c1) {
            escape(byte);
            escape(static_cast<unsigned char>(text[++i]));
        } else if (byte < 0x20 || byte == 0x7f || byte == '\\') {
            escape(byte);
        } else {
            printable += text[i];
        }
    }
    return printable;
}
