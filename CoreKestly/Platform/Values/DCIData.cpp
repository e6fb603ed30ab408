#include "CoreKestly/Platform/Values/DCIData.h"

namespace {
constexpr size_t kShownBytesEachEnd = 12;

void appendHex(std::string& text, uint8_t byte) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0f];
}
}  // namespace

std::string DCIData::description() const {
    std::string text = "{length = " + std::to_string(bytes_.size()) + ", bytes = 0x";
    if (bytes_.size() <= 2 * kShownBytesEachEnd) {
        for (uint8_t byte : bytes_) appendHex(text, byte);
    } else {
        for (size_t i = 0; i < kShownBytesEachEnd; ++i) appendHex(text, bytes_[i]);
        text += " ... ";
        for (size_t i = bytes_.size() - kShownBytesEachEnd; i < bytes_.size(); ++i) appendHex(text, bytes_[i]);
    }
    return text + "}";
}
