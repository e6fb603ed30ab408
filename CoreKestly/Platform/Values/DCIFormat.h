#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/Platform/Values/DCIValue.h"

#include <array>
#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

/// One argument of a printf-style format, captured with its type so the formatter never
/// reads past the arguments it was given or reads them as something they are not.
class KESTLY_EXPORT DCIFormatArgument {
public:
    /// A missing object: prints as "(null)".
    DCIFormatArgument(std::nullptr_t) {}
    template <std::signed_integral T>
    DCIFormatArgument(T value) : value_(static_cast<int64_t>(value)) {}
    template <std::unsigned_integral T>
        requires(!std::same_as<T, bool>)
    DCIFormatArgument(T value) : value_(static_cast<uint64_t>(value)) {}
    DCIFormatArgument(bool value) : value_(static_cast<int64_t>(value)) {}
    DCIFormatArgument(double value) : value_(value) {}
    DCIFormatArgument(const char* text);
    DCIFormatArgument(std::string_view text) : value_(text) {}
    DCIFormatArgument(const std::string& text) : value_(std::string_view(text)) {}
    /// A string or number as itself; the null value as "<null>", as the shared null object prints.
    DCIFormatArgument(const DCIValue& value);
    DCIFormatArgument(const DCIObject& object) : value_(object.description()) {}
    template <std::derived_from<DCIObject> T>
    DCIFormatArgument(const std::shared_ptr<T>& object) {
        if (object) value_ = object->description();
    }
    DCIFormatArgument(const DCIDate& date) : value_(date.description()) {}
    DCIFormatArgument(const DCIError& error) : value_(error.description()) {}
    template <class T>
    DCIFormatArgument(const std::optional<T>& value) {
        if (value) *this = DCIFormatArgument(*value);
    }
    DCIFormatArgument(const void* pointer) : value_(pointer) {}
    /// Text dear to make, such as a URL parsed to leave its credentials out: the function is
    /// called only when the message is built, so a log line that is off costs nothing.
    template <std::invocable F>
        requires std::convertible_to<std::invoke_result_t<const F&>, std::string>
    DCIFormatArgument(const F& describe) : value_(std::string(describe())) {}

    /// nil, a signed or unsigned integer, a double, borrowed text, owned text (an object's
    /// description) or an address.
    using Value = std::variant<std::monostate, int64_t, uint64_t, double, std::string_view, std::string, const void*>;
    const Value& value() const { return value_; }

private:
    Value value_;
};

/// Builds a message from a format with the platform's conversions: "%@" for any object's
/// description, the integer, floating-point, string, character and pointer conversions of
/// printf with their flags, width, precision and length modifiers, and "%%". A missing
/// argument or a nil object prints as "(null)"; an argument of another kind than its
/// conversion asks for is printed as well as it can be, never reinterpreted; extra
/// arguments are ignored.
///
/// Where kinds differ: text prints as text under any conversion; a number under "%@", "%s"
/// or "%p" prints in decimal (a double in its shortest exact form); a double under an
/// integer conversion is truncated toward zero, or keeps its "%g" form when no 64-bit
/// integer holds it; a negative number under "%u", "%x", "%X" or "%o", and an unsigned one
/// beyond the signed range under "%d", print in plain decimal; "%c" prints a byte for
/// -128 to 255 and decimal beyond. Length modifiers are accepted and ignored, since each
/// argument carries its own type. An unknown conversion ("%n" among them) is copied as
/// text and takes no argument, as is a conversion directive cut off by the end of the format.
/// Widths and precisions are capped at 4096.
KESTLY_EXPORT std::string DCIFormatArguments(std::string_view format, std::span<const DCIFormatArgument> arguments);

template <class... Args>
std::string DCIFormat(std::string_view format, const Args&... args) {
    const std::array<DCIFormatArgument, sizeof...(Args)> arguments{DCIFormatArgument(args)...};
    return DCIFormatArguments(format, arguments);
}
