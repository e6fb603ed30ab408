#pragma once

#include <optional>
#include <string>

/// One request of a chain of redirects: where it goes, with which method, and whether the
/// request's body goes with it.
struct DCIURLHop {
    std::string URL;
    std::string method;
    bool sendsBody;
};

/// Where a redirect leads, or why it is not followed.
struct DCIURLRedirect {
    DCIURLHop hop;
    bool crossesOrigin;
    /// Set when the target is no web URL, or drops TLS: the request fails.
    std::optional<std::string> schemeRefusal;
    /// Set when following would send an unsafe method or a body to another origin: the
    /// redirect itself is the response.
    std::optional<std::string> replayRefusal;
};

/// The URL a Location field's `location` names, read against `baseURL`; nothing when it names
/// none.
std::optional<std::string> DCIURLResolvingLocation(const std::string& baseURL, const std::string& location);

/// Whether `statusCode` is a redirect that is followed: 301, 302, 303, 307 or 308.
bool DCIURLIsRedirectStatus(long statusCode);

/// The request that a redirect of `statusCode` from `from` to `toURL` asks for: a 303 becomes
/// a GET (HEAD stays HEAD) without body, as does a POST's 301 or 302; any other keeps method
/// and body. Keeping an unsafe method or a body across origins is refused unless
/// `replaysAcrossOrigins`.
DCIURLRedirect DCIURLRedirectFor(long statusCode, const DCIURLHop& from, const std::string& toURL,
                                 bool replaysAcrossOrigins);
