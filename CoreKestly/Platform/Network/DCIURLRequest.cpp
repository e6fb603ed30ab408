#include "CoreKestly/Platform/Network/DCIURLRequest.h"

#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"

#include <algorithm>
#include <cctype>

bool DCIIsHTTPToken(std::string_view text) {
    constexpr std::string_view kSymbols = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::ranges::all_of(text, [&](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || kSymbols.find(c) != std::string_view::npos;
    });
}

bool DCIHeaderFieldNamesEqual(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b,
                              [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

std::optional<std::string> DCIHeaderFieldValue(const std::vector<std::pair<std::string, std::string>>& fields,
                                               std::string_view name) {
    for (const auto& [fieldName, value] : fields) {
        if (DCIHeaderFieldNamesEqual(fieldName, name)) return value;
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
    return DCIHeaderFieldNamesEqual(name, "Authorization") || DCIHeaderFieldNamesEqual(name, "Proxy-Authorization") ||
           DCIHeaderFieldNamesEqual(name, "Cookie") || DCIHeaderFieldNamesEqual(name, "Set-Cookie");
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
