#include "CoreKestly/Platform/Values/DCIValue.h"

#include <charconv>

namespace {

template <class Result>
std::optional<Result> convertNumber(const auto& storage) {
    return std::visit(
        [](const auto& value) -> std::optional<Result> {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, int64_t> || std::is_same_v<T, uint64_t> ||
                          std::is_same_v<T, double>) {
                return static_cast<Result>(value);
            } else {
                return std::nullopt;
            }
        },
        storage);
}

// The shortest text that reads back as the same double: 0.1 prints as "0.1".
std::string describeDouble(double value) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

// Plain words print bare in a property list; anything else is quoted and escaped.
bool isPlainWord(std::string_view text) {
    if (text.empty()) return false;
    for (const char c : text) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                           c == '_' || c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
        if (!plain) return false;
    }
    return true;
}

std::string quotedIfNeeded(std::string_view text) {
    if (isPlainWord(text)) return std::string(text);
    std::string quoted = "\"";
    for (char c : text) {
        switch (c) {
            case '"': quoted += "\\\""; break;
            case '\\': quoted += "\\\\"; break;
            case '\n': quoted += "\\n"; break;
            case '\t': quoted += "\\t"; break;
            default: quoted += c;
        }
    }
    return quoted + "\"";
}

}  // namespace

DCIValue::DCIValue(const char* value) {
    if (value) storage_ = std::string(value);
}

DCIValue::DCIValue(std::shared_ptr<const DCIData> value) {
    if (value) storage_ = std::move(value);
}

bool DCIValue::isNumber() const {
    return std::holds_alternative<bool>(storage_) || std::holds_alternative<int64_t>(storage_) ||
           std::holds_alternative<uint64_t>(storage_) || std::holds_alternative<double>(storage_);
}

std::optional<DCIValue::Number> DCIValue::number() const {
    if (const auto* truth = std::get_if<bool>(&storage_)) return Number(int64_t{*truth});
    if (const auto* value = std::get_if<int64_t>(&storage_)) return Number(*value);
    if (const auto* value = std::get_if<uint64_t>(&storage_)) return Number(*value);
    if (const auto* value = std::get_if<double>(&storage_)) return Number(*value);
    return std::nullopt;
}

std::optional<bool> DCIValue::boolValue() const {
    const auto number = doubleValue();
    if (!number) return std::nullopt;
    return *number != 0;
}
std::optional<int64_t> DCIValue::int64Value() const { return convertNumber<int64_t>(storage_); }
std::optional<uint64_t> DCIValue::uint64Value() const { return convertNumber<uint64_t>(storage_); }
std::optional<double> DCIValue::doubleValue() const { return convertNumber<double>(storage_); }

std::shared_ptr<const DCIData> DCIValue::data() const {
    const auto* data = std::get_if<std::shared_ptr<const DCIData>>(&storage_);
    return data ? *data : nullptr;
}

std::string DCIValue::description() const {
    return std::visit(
        [](const auto& value) -> std::string {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
                return "<null>";
            } else if constexpr (std::is_same_v<T, bool>) {
                return value ? "1" : "0";
            } else if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, uint64_t>) {
                return std::to_string(value);
            } else if constexpr (std::is_same_v<T, double>) {
                return describeDouble(value);
            } else if constexpr (std::is_same_v<T, std::string>) {
                return value;
            } else if constexpr (std::is_same_v<T, DCIDate> || std::is_same_v<T, DCIError>) {
                return value.description();
            } else {
                return value->description();
            }
        },
        storage_);
}

bool operator==(const DCIValue& a, const DCIValue& b) { return a.storage_ == b.storage_; }

std::string DCIDescription(const DCIDictionary& dictionary) {
    std::string text = "{\n";
    for (const auto& [key, value] : dictionary) {
        // Only strings are quoted: other values print as they describe themselves.
        const std::string shown = value.string() ? quotedIfNeeded(*value.string()) : value.description();
        text += "    " + quotedIfNeeded(key) + " = " + shown + ";\n";
    }
    return text + "}";
}

const DCIValue& DCINull() {
    static const DCIValue null;
    return null;
}
