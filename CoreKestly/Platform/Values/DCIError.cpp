#include "CoreKestly/Platform/Values/DCIError.h"

#include <cstring>

DCIError DCIError::posixError(int code) {
    char buffer[256];
    // The GNU strerror_r may return a static string instead of filling the buffer.
    const char* text = strerror_r(code, buffer, sizeof buffer);
    return DCIError(kDCIPOSIXErrorDomain, code, text);
}

DCIError DCIError::posixError(int code, const std::string& what) {
    DCIError error = posixError(code);
    return DCIError(error.domain(), code, what + ": " + error.localizedDescription());
}

std::string DCIError::description() const {
    return "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" + localizedDescription_ + "\"";
}
