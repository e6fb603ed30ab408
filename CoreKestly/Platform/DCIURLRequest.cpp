#include "CoreKestly/Platform/DCIURLRequest.h"

#include "CoreKestly/Platform/DCILoggedTextInternal.h"

#include <algorithm>
#include <cctype>

namespace {

bool equalIgnoringASCIICase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b,
                              [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

}  // namespace

std::optional<std::string> DCIHeaderFieldValue(const std::vector<std::pair<std::string, std::string>>& fields,
                                               std::string_view name) {
    for (const auto& [fieldName, value] : fields) {
        if (equalIgnoringASCIICase(fieldName, name)) return value;
    }
    return std::nullopt;
}

std::string DCIURLWithoutCredentials(std::string_view URL) {
    const auto schemeEnd = URL.find("://");
    if (schemeEnd == std::string_view::npos) return std::string(URL);
    const auto authorityStart = schemeEnd + 3;
    const auto authority = URL.substr(authorityStart, URL.find_first_of("/?#", authorityStart) - authorityStart);
    const auto at = authority.rfind('@');
    if (at == std::string_view::npos) return std::string(URL);
    return std::string(URL.substr(0, authorityStart)) + "***" + std::string(URL.substr(authorityStart + at));
}

bool DCIHeaderFieldIsSecret(std::string_view name) {
    return equalIgnoringASCIICase(name, "Authorization") || equalIgnoringASCIICase(name, "Proxy-Authorization") ||
           equalIgnoringASCIICase(name, "Cookie") || equalIgnoringASCIICase(name, "Set-Cookie");
}

std::shared_ptr<DCIURLRequest> DCIURLRequest::requestWithURL(std::string URL) {
    DCIURLRequestFields fields;
    fields.URL = std::move(URL);
    return requestWithFields(std::move(fields));
}

std::shared_ptr<DCIURLRequest> DCIURLRequest::requestWithFields(DCIURLRequestFields fields) {
    return std::shared_ptr<DCIURLRequest>(new DCIURLRequest(std::move(fields)));
}

std::optional<std::string> DCIURLRequest::valueForHTTPHeaderField(std::string_view name) const {
    return DCIHeaderFieldValue(fields_.HTTPHeaderFields, name);
}

std::string DCIURLRequest::description() const {
    return "<DCIURLRequest: " + DCILoggedText(fields_.HTTPMethod) + " " + DCILoggedText(DCIURLWithoutCredentials(fields_.URL)) + ">";
}
