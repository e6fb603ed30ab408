#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// An immutable run of bytes, such as a response body received into memory.
class KESTLY_EXPORT DCIData {
public:
    DCIData() = default;
    explicit DCIData(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    explicit DCIData(std::string_view bytes) : bytes_(bytes.begin(), bytes.end()) {}

    std::span<const uint8_t> bytes() const { return bytes_; }
    size_t length() const { return bytes_.size(); }
    /// The bytes as a string, for text bodies.
    std::string_view stringView() const {
        return {reinterpret_cast<const char*>(bytes_.data()), bytes_.size()};
    }

    /// "{length = N, bytes = 0x0011...}", the first and last bytes of long data only.
    std::string description() const;

    friend bool operator==(const DCIData&, const DCIData&) = default;

private:
    std::vector<uint8_t> bytes_;
};
