#pragma once

#include "CoreKestly/CoreKestlyExport.h"

#include "CoreKestly/Platform/Values/DCIError.h"
#include "CoreKestly/Platform/Values/DCIObject.h"
#include "CoreKestly/Platform/Network/DCIURLRequest.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

/// The head of an HTTP response: the final one, after any redirects were followed.
class KESTLY_EXPORT DCIURLResponse : public DCIObject {
public:
    DCIURLResponse(std::string URL, int64_t statusCode, int64_t expectedContentLength,
                   std::vector<std::pair<std::string, std::string>> allHeaderFields,
                   std::optional<std::string> unfollowedRedirectReason = std::nullopt)
        : URL_(std::move(URL)),
          statusCode_(statusCode),
          expectedContentLength_(expectedContentLength),
          allHeaderFields_(std::move(allHeaderFields)),
          unfollowedRedirectReason_(std::move(unfollowedRedirectReason)) {}

    const std::string& URL() const { return URL_; }
    int64_t statusCode() const { return statusCode_; }
    /// The length of the body the delegate will receive, or -1 when the server did not state
    /// it or sent the body compressed (the stated length then counts the compressed bytes).
    int64_t expectedContentLength() const { return expectedContentLength_; }
    /// The header fields in the order they came: those of the first 64 KiB, and past that the
    /// ones that decide what the body is (Location, ETag, Content-Encoding, Content-Length,
    /// Content-Type).
    const std::vector<std::pair<std::string, std::string>>& allHeaderFields() const { return allHeaderFields_; }
    /// The first field named `name`, compared without regard to case.
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
        return DCIHeaderFieldValue(allHeaderFields_, name);
    }
    /// Why this redirect is the response rather than followed: it would have sent the method
    /// or the body again to another origin. Nothing for any other response.
    const std::optional<std::string>& unfollowedRedirectReason() const { return unfollowedRedirectReason_; }

    /// "<DCIURLResponse: URL> { Status Code: N, Headers { name = value; ... } }", one short
    /// entry whatever was sent: the first 32 fields, texts cut, control characters as "?".
    std::string description() const override;

private:
    std::string URL_;
    int64_t statusCode_;
    int64_t expectedContentLength_;
    std::vector<std::pair<std::string, std::string>> allHeaderFields_;
    std::optional<std::string> unfollowedRedirectReason_;
};

class DCIURLConnection;

/// What a connection tells as it loads, all on the thread whose run loop it is bound to and
/// only while that loop runs. For one request: any number of body-sent steps, then the
/// response, any number of data chunks, and exactly one of the failure and the finish,
/// unless the connection is cancelled first, after which nothing more comes.
class KESTLY_EXPORT DCIURLConnectionDelegate {
public:
    virtual ~DCIURLConnectionDelegate() = default;

    /// Part of the request body was sent: `didSendBodyData` bytes since the last call.
    virtual void connection(DCIURLConnection& connection, int64_t didSendBodyData, int64_t totalBytesWritten,
                            int64_t totalBytesExpectedToWrite) = 0;
    virtual void connection(DCIURLConnection& connection, const DCIURLResponse& didReceiveResponse) = 0;
    /// A chunk of the body, valid during the call only.
    virtual void connection(DCIURLConnection& connection, std::span<const uint8_t> didReceiveData) = 0;
    /// The request failed, its time-out included; errors are of `kDCIURLErrorDomain`.
    virtual void connection(DCIURLConnection& connection, const DCIError& didFailWithError) = 0;
    virtual void connectionDidFinishLoading(DCIURLConnection& connection) = 0;
};

/// One HTTP or HTTPS request loading on the run loop of the thread that made it. Redirects
/// are followed as HTTP has it (at most 16, to http and https only, and from https to https
/// only): a 303, and a POST's 301 or 302, become a GET without body; others keep method and
/// body, but do not take a method other than GET and HEAD, a body or the credential fields
/// (Authorization, Cookie, Proxy-Authorization) to another origin. Certificates and host names are verified, HTTP/2 is
/// used where the server offers it and compressed bodies arrive decompressed. All connections
/// made on one thread share that thread's connection cache, so repeated requests to one
/// host reuse its connection.
///
/// Lifetime: the connection holds its delegate weakly. The delegate may cancel or drop its
/// last reference to the connection from inside any callback; dropping the last reference
/// cancels the request.
class KESTLY_EXPORT DCIURLConnection : public DCIObject, public std::enable_shared_from_this<DCIURLConnection> {
public:
    /// A connection for `request`, bound to the calling thread's run loop, that loads only
    /// once started. nullptr for a null request.
    static std::shared_ptr<DCIURLConnection> initWithRequest(std::shared_ptr<const DCIURLRequest> request,
                                                             std::weak_ptr<DCIURLConnectionDelegate> delegate);
    ~DCIURLConnection() override;
    DCIURLConnection(const DCIURLConnection&) = delete;
    DCIURLConnection& operator=(const DCIURLConnection&) = delete;

    /// Readies the process-wide state of the HTTP layer (libcurl and its TLS library), which
    /// the first connection would otherwise do on its own thread. Doing it on a thread that
    /// lives as long as the process, such as the main thread, keeps that thread's share of the
    /// state from dying with a worker thread. Any thread, any number of times; answers whether
    /// connections can load.
    static bool prepareLoading();

    /// Begins loading on the bound loop. Any thread; a second call does nothing.
    void start();
    /// Stops the request. On the bound thread no callback comes after the call; from another
    /// thread a callback already under way may still finish.
    void cancel();

    const std::shared_ptr<const DCIURLRequest>& originalRequest() const { return request_; }
    std::string description() const override;

    struct KESTLY_HIDDEN Transfer;

private:
    DCIURLConnection(std::shared_ptr<const DCIURLRequest> request, std::shared_ptr<Transfer> transfer)
        : request_(std::move(request)), transfer_(std::move(transfer)) {}

    const std::shared_ptr<const DCIURLRequest> request_;
    const std::shared_ptr<Transfer> transfer_;
};

/// The domain of a connection's failures; the codes follow the common URL-loading codes.
inline constexpr const char* kDCIURLErrorDomain = "NSURLErrorDomain";
enum DCIURLErrorCode : int64_t {
    DCIURLErrorUnknown = -1,
    DCIURLErrorCancelled = -999,
    DCIURLErrorBadURL = -1000,
    DCIURLErrorTimedOut = -1001,
    DCIURLErrorUnsupportedURL = -1002,
    DCIURLErrorCannotFindHost = -1003,
    DCIURLErrorCannotConnectToHost = -1004,
    DCIURLErrorNetworkConnectionLost = -1005,
    DCIURLErrorHTTPTooManyRedirects = -1007,
    DCIURLErrorBadServerResponse = -1011,
    DCIURLErrorDataLengthExceedsMaximum = -1103,
    DCIURLErrorSecureConnectionFailed = -1200,
    DCIURLErrorServerCertificateUntrusted = -1202,
    DCIURLErrorCannotOpenFile = -3001,
};
