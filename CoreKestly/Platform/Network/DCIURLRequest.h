#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIData.h"
#include "CoreKestly/Platform/Values/DCIObject.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What an HTTP request is made of. Header fields keep their order; a body comes either from
/// memory or from a file that is read while the request is sent.
struct DCIURLRequestFields {
    std::string URL;
    std::string HTTPMethod = "GET";
    std::vector<std::pair<std::string, std::string>> HTTPHeaderFields;
    std::shared_ptr<const DCIData> HTTPBody;
    std::optional<std::string> HTTPBodyFilePath;
    /// Seconds the request may go without any progress (connecting, sending or receiving)
    /// before it fails as timed out.
    double timeoutInterval = 60;
    /// Whether a redirect to another origin (scheme, host and port) may send a method other
    /// than GET and HEAD, or the body, again. Without it such a redirect is not followed.
    bool replaysMethodAcrossOrigins = false;
    /// The most bytes the response body may have once decoded; a larger one fails the request
    /// (`DCIURLErrorDataLengthExceedsMaximum`) before a byte past it is handed over. None: no
    /// limit.
    std::optional<uint64_t> maximumBodySize = std::nullopt;
    /// A PEM file of the certificate authorities that server certificates must chain to,
    /// instead of the system's: a company's own, or a test server's. None: the system's.
    std::optional<std::string> certificateAuthorityFile = std::nullopt;
};

/// An HTTP or HTTPS request, built by the host and carried by a download action. Immutable
/// once made, so any thread may read it while a worker runs it.
class KESTLY_EXPORT DCIURLRequest : public DCIObject {
public:
    /// A GET request for `URL` with no headers, no body and a time-out of 60 seconds.
    static std::shared_ptr<DCIURLRequest> requestWithURL(std::string URL);
    static std::shared_ptr<DCIURLRequest> requestWithFields(DCIURLRequestFields fields);

    const std::string& URL() const { return fields_.URL; }
    const std::string& HTTPMethod() const { return fields_.HTTPMethod; }
    const std::vector<std::pair<std::string, std::string>>& allHTTPHeaderFields() const {
        return fields_.HTTPHeaderFields;
    }
    /// The value of the first header field named `name`, compared without regard to case.
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
    const std::shared_ptr<const DCIData>& HTTPBody() const { return fields_.HTTPBody; }
    const std::optional<std::string>& HTTPBodyFilePath() const { return fields_.HTTPBodyFilePath; }
    double timeoutInterval() const { return fields_.timeoutInterval; }
    bool replaysMethodAcrossOrigins() const { return fields_.replaysMethodAcrossOrigins; }
    const std::optional<uint64_t>& maximumBodySize() const { return fields_.maximumBodySize; }
    const std::optional<std::string>& certificateAuthorityFile() const { return fields_.certificateAuthorityFile; }

    /// "<DCIURLRequest: METHOD URL>", the part log lines show, each cut to 1 KiB with control
    /// characters as "?" and the URL's credentials as "***".
    std::string description() const override;

private:
    explicit DCIURLRequest(DCIURLRequestFields fields) : fields_(std::move(fields)) {}
    const DCIURLRequestFields fields_;
};

/// Whether `text` is an HTTP token, as a method must be: letters, digits and !#$%&'*+-.^_`|~.
KESTLY_EXPORT bool DCIIsHTTPToken(std::string_view text);

/// Whether two header field names are the same, compared as HTTP compares them: without regard
/// to ASCII case.
KESTLY_EXPORT bool DCIHeaderFieldNamesEqual(std::string_view a, std::string_view b);

/// The value of the first field named `name` among `fields`, names compared as HTTP compares
/// them: without regard to ASCII case.
KESTLY_EXPORT std::optional<std::string> DCIHeaderFieldValue(const std::vector<std::pair<std::string, std::string>>& fields,
                                               std::string_view name);

/// `URL` with the user and password it may carry shown as "***", for log lines and error
/// texts, which must never hold a secret.
KESTLY_EXPORT std::string DCIURLWithoutCredentials(std::string_view URL);

/// Whether a header field named `name` carries a secret (Authorization, Cookie,
/// Proxy-Authorization, Set-Cookie), whose value log lines show as "***".
KESTLY_EXPORT bool DCIHeaderFieldIsSecret(std::string_view name);
