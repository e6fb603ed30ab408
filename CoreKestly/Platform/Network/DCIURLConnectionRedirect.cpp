// Which request a redirect leads to. libcurl would keep a custom method, and its body, on any
// redirect to any server, so the connection follows redirects itself by these rules.

#include "CoreKestly/Platform/Network/DCIURLConnectionRedirectInternal.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace {

struct Origin {
    std::string scheme, host, port;
    bool operator==(const Origin&) const = default;
};

std::optional<std::string> urlPart(CURLU* url, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, flags) != CURLUE_OK) return std::nullopt;
    std::string copy(text);
    curl_free(text);
    return copy;
}

std::optional<Origin> originOf(const std::string& urlText) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
    if (!url || curl_url_set(url.get(), CURLUPART_URL, urlText.c_str(), 0) != CURLUE_OK) return std::nullopt;
    auto scheme = urlPart(url.get(), CURLUPART_SCHEME);
    auto host = urlPart(url.get(), CURLUPART_HOST);
    auto port = urlPart(url.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (!scheme || !host || !port) return std::nullopt;
    for (std::string* text : {&*scheme, &*host}) {
        std::ranges::transform(*text, text->begin(), [](unsigned char c) { return std::tolower(c); });
    }
    return Origin{*scheme, *host, *port};
}

bool isSafe(const std::string& method) { return method == "GET" || method == "HEAD"; }

}  // namespace

std::optional<std::string> DCIURLResolvingLocation(const std::string& baseURL, const std::string& location) {
    const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
    if (!url || curl_url_set(url.get(), CURLUPART_URL, baseURL.c_str(), 0) != CURLUE_OK) return std::nullopt;
    // As libcurl reads a Location: relative to the request, spaces encoded, any scheme parsed
    // so that a refusal can name it.
    constexpr unsigned kFlags = CURLU_URLENCODE | CURLU_ALLOW_SPACE | CURLU_NON_SUPPORT_SCHEME;
    if (curl_url_set(url.get(), CURLUPART_URL, location.c_str(), kFlags) != CURLUE_OK) return std::nullopt;
    return urlPart(url.get(), CURLUPART_URL);
}

bool DCIURLIsRedirectStatus(long statusCode) {
    return statusCode == 301 || statusCode == 302 || statusCode == 303 || statusCode == 307 || statusCode == 308;
}

DCIURLRedirect DCIURLRedirectFor(long statusCode, const DCIURLHop& from, const std::string& toURL,
                                 bool replaysAcrossOrigins) {
    DCIURLRedirect next{{toURL, from.method, from.sendsBody}, false, {}, {}};
    const auto fromOrigin = originOf(from.URL);
    const auto toOrigin = originOf(toURL);
    if (!toOrigin || (toOrigin->scheme != "http" && toOrigin->scheme != "https") ||
        (fromOrigin && fromOrigin->scheme == "https" && toOrigin->scheme != "https")) {
        next.schemeRefusal = "the redirect leads to a URL that is not https, or not http at all";
        return next;
    }
    next.crossesOrigin = fromOrigin != toOrigin;
    // A 303 asks for the result by GET; browsers turn a POST's 301 and 302 into GET too.
    if (statusCode == 303 || ((statusCode == 301 || statusCode == 302) && from.method == "POST")) {
        next.hop.method = from.method == "HEAD" ? "HEAD" : "GET";
        next.hop.sendsBody = false;
    }
    // Sending an unsafe method or a body again is the host's request only towards the server it
    // named; another origin may act on it quite differently.
    if (next.crossesOrigin && !replaysAcrossOrigins && (!isSafe(next.hop.method) || next.hop.sendsBody)) {
        next.replayRefusal = "the redirect would send " + next.hop.method + (next.hop.sendsBody ? " and its body" : "") +
                             " again to another origin";
    }
    return next;
}
