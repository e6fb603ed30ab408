#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIData.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIError.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <concepts>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

/// One value of a context dictionary: null, a truth value, a number, a string, a date, an
/// error, bytes or any library or host object. Values are cheap to copy: bytes and objects
/// are shared, not copied.
class KESTLY_EXPORT DCIValue {
public:
    /// The null value, which stands for "no value" inside collections.
    DCIValue() = default;
    DCIValue(std::nullptr_t) {}
    DCIValue(bool value) : storage_(value) {}
    template <std::signed_integral T>
        requires(!std::same_as<T, bool> && !std::same_as<T, char>)
    DCIValue(T value) : storage_(static_cast<int64_t>(value)) {}
    template <std::unsigned_integral T>
        requires(!std::same_as<T, bool>)
    DCIValue(T value) : storage_(static_cast<uint64_t>(value)) {}
    DCIValue(double value) : storage_(value) {}
    DCIValue(std::string value) : storage_(std::move(value)) {}
    DCIValue(std::string_view value) : storage_(std::string(value)) {}
    DCIValue(const char* value);
    DCIValue(DCIDate value) : storage_(value) {}
    DCIValue(DCIError value) : storage_(std::move(value)) {}
    DCIValue(DCIData value) : storage_(std::make_shared<const DCIData>(std::move(value))) {}
    DCIValue(std::shared_ptr<const DCIData> value);
    /// A library or host object; a null pointer gives the null value.
    template <std::derived_from<DCIObject> T>
    DCIValue(std::shared_ptr<T> object) {
        if (object) storage_ = std::shared_ptr<DCIObject>(std::move(object));
    }

    bool isNull() const { return std::holds_alternative<std::monostate>(storage_); }
    bool isNumber() const;

    /// A number as the kind it was stored as, truth values as 0 or 1; nothing unless a number.
    using Number = std::variant<int64_t, uint64_t, double>;
    std::optional<Number> number() const;
    /// The number as the type asked for, converted as C converts; nothing unless a number.
    std::optional<bool> boolValue() const;
    std::optional<int64_t> int64Value() const;
    std::optional<uint64_t> uint64Value() const;
    std::optional<double> doubleValue() const;

    const std::string* string() const { return std::get_if<std::string>(&storage_); }
    const DCIDate* date() const { return std::get_if<DCIDate>(&storage_); }
    const DCIError* error() const { return std::get_if<DCIError>(&storage_); }
    std::shared_ptr<const DCIData> data() const;
    /// The object when it is one of type T; nullptr otherwise.
    template <std::derived_from<DCIObject> T = DCIObject>
    std::shared_ptr<T> object() const {
        const auto* object = std::get_if<std::shared_ptr<DCIObject>>(&storage_);
        return object ? std::dynamic_pointer_cast<T>(*object) : nullptr;
    }

    /// How the value prints: strings as themselves, numbers in decimal, truth values as 1
    /// or 0, null as "<null>", objects by their own description.
    std::string description() const;

    friend KESTLY_EXPORT bool operator==(const DCIValue& a, const DCIValue& b);

private:
    using Storage = std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, DCIDate, DCIError,
                                 std::shared_ptr<const DCIData>, std::shared_ptr<DCIObject>>;
    Storage storage_;
};

/// A context dictionary: string keys, compared by value, to values. Ordered, so that its
/// description is the same from run to run.
using DCIDictionary = std::map<std::string, DCIValue, std::less<>>;

/// The dictionary in the property-list style of the original platform:
/// "{\n    key = value;\n}", with keys and values quoted where they are not plain words.
KESTLY_EXPORT std::string DCIDescription(const DCIDictionary& dictionary);

/// The shared null value, for filling a collection with something that may be missing.
KESTLY_EXPORT const DCIValue& DCINull();
