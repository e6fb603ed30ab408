#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <memory>
#include <string>

/// The root of the library's object model. Context dictionaries and the event bus carry
/// library and host objects alike as `std::shared_ptr<DCIObject>`; `description()` is what
/// log lines and `description()` of containers print for the object.
class KESTLY_EXPORT DCIObject {
public:
    virtual ~DCIObject() = default;

    /// A human-readable account of the object, as log lines show it.
    virtual std::string description() const;

protected:
    DCIObject() = default;
    DCIObject(const DCIObject&) = default;
    DCIObject& operator=(const DCIObject&) = default;
};

/// The text a missing object prints as.
inline constexpr const char* kDCINilDescription = "(null)";
