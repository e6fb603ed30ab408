#include "Base64.h"

#include <algorithm>
#include <cstdint>

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Encoded(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - at);
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) group = group << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0u);
        for (size_t i = 0; i < 4; ++i) text += i <= count ? kAlphabet[group >> (18 - 6 * i) & 0x3F] : '=';
    }
    return text;
}

std::optional<std::string> base64Decoded(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (size_t at = 0; at < text.size(); at += 4) {
        uint32_t group = 0;
        size_t padding = 0;
        for (size_t i = 0; i < 4; ++i) {
            const char c = text[at + i];
            // Padding only ends the last group, in its last one or two places.
            if (c == '=' && i >= 2 && at + 4 == text.size()) {
                ++padding;
                group <<= 6;
                continue;
            }
            const size_t value = kAlphabet.find(c);
            if (value == std::string_view::npos || padding > 0) return std::nullopt;
            group = group << 6 | static_cast<uint32_t>(value);
        }
        for (size_t i = 0; i < 3 - padding; ++i) bytes += static_cast<char>(group >> (16 - 8 * i) & 0xFF);
    }
    return bytes;
}
