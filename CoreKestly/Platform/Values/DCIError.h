#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include <cstdint>
#include <string>

/// Why something failed: a domain naming the error's origin, a code within that domain and
/// a sentence for people. Actions keep one under `kDCIError` when they fail.
class KESTLY_EXPORT DCIError {
public:
    DCIError(std::string domain, int64_t code, std::string localizedDescription)
        : domain_(std::move(domain)), code_(code), localizedDescription_(std::move(localizedDescription)) {}

    /// An error of the POSIX domain for `errno` value `code`, described by the system.
    static DCIError posixError(int code);
    /// A POSIX error whose description names what failed, e.g. "open /a/b: No such file".
    static DCIError posixError(int code, const std::string& what);

    const std::string& domain() const { return domain_; }
    int64_t code() const { return code_; }
    const std::string& localizedDescription() const { return localizedDescription_; }

    /// Error Domain=<domain> Code=<code> "<description>"
    std::string description() const;

    friend bool operator==(const DCIError&, const DCIError&) = default;

private:
    std::string domain_;
    int64_t code_;
    std::string localizedDescription_;
};

/// The domain of errors that carry an `errno` value.
inline constexpr const char* kDCIPOSIXErrorDomain = "NSPOSIXErrorDomain";
