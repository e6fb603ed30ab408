#include "CoreKestly/Platform/Network/DCIURLConnection.h"

#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"
#include "CoreKestly/Platform/Network/DCIURLConnectionInternal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

using Transfer = DCIURLConnection::Transfer;

namespace {

// Bigger chunks than libcurl's 16 KiB default: fewer callbacks and writes at full speed.
constexpr long kBufferSize = 256 * 1024;
// What is kept of one response head; a server sending more gets its first fields only.
constexpr size_t kMaximumHeaderBytes = 64 * 1024;
// What is read of a redirect's body before its connection is given up instead.
constexpr size_t kMaximumSkippedBodyBytes = 64 * 1024;
constexpr int kMaximumRedirects = 16;
// What the description shows of a head, so that one log line stays short whatever was sent.
constexpr size_t kDescribedHeaderFields = 32;
constexpr size_t kDescribedFieldBytes = 256;

bool hasLineBreakOrNull(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Fields that decide what the body is, kept past the cap on a head's size.
bool decidesTheBody(std::string_view name) {
    return std::ranges::any_of(std::initializer_list<std::string_view>{"Location", "ETag", "Content-Encoding",
                                                                       "Content-Length", "Content-Type"},
                               [&](std::string_view field) { return DCIHeaderFieldNamesEqual(name, field); });
}

void keepHeaderField(Transfer& transfer, std::string_view line, size_t colon) {
    const std::string_view name = trimmed(line.substr(0, colon));
    if (transfer.responseHeaderBytes + line.size() <= kMaximumHeaderBytes) {
        transfer.responseHeaderBytes += line.size();
    } else {
        transfer.responseHeaderBytes = kMaximumHeaderBytes;  // full: the fields after come from past the cap
        // libcurl caps each line, so this keeps a head within a few lines of the cap.
        if (!decidesTheBody(name) || DCIHeaderFieldValue(transfer.responseHeaders, name)) return;
    }
    transfer.responseHeaders.emplace_back(name, trimmed(line.substr(colon + 1)));
}

size_t receiveHeader(char* bytes, size_t size, size_t count, void* userData) {
    auto& transfer = *static_cast<Transfer*>(userData);
    if (transfer.canceled) return 0;
    transfer.noteActivity();
    const std::string_view line(bytes, size * count);
    // Every response head, of a redirect, a 100 Continue or a proxy, begins anew; the last
    // one is the response.
    if (line.starts_with("HTTP/")) {
        transfer.responseHeaders.clear();
        transfer.responseHeaderBytes = 0;
    } else if (line == "\r\n" || line == "\n") {
        // The response goes out as soon as its head is complete, so that its status is judged
        // even when no body follows in time.
        if (!transfer.headEnded()) return 0;
    } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
        keepHeaderField(transfer, line, colon);
    }
    return size * count;
}

size_t receiveData(char* bytes, size_t size, size_t count, void* userData) {
    auto& transfer = *static_cast<Transfer*>(userData);
    transfer.noteActivity();
    if (transfer.nextHop) {
        // A redirect's own body says nothing; a long one is cut, at the cost of its connection.
        transfer.skippedBodyBytes += size * count;
        return transfer.skippedBodyBytes <= kMaximumSkippedBodyBytes ? size * count : 0;
    }
    if (!transfer.deliverResponseOnce()) return 0;
    // Counted as decoded: a small compressed body may inflate to any size.
    transfer.bodyBytesReceived += size * count;
    if (const auto& maximum = transfer.request->maximumBodySize(); maximum && transfer.bodyBytesReceived > *maximum) {
        transfer.endingError = DCIError(kDCIURLErrorDomain, DCIURLErrorDataLengthExceedsMaximum,
                                        "the body is larger than the " + std::to_string(*maximum) +
                                            " bytes the request allows");
        return 0;
    }
    const std::span chunk(reinterpret_cast<const uint8_t*>(bytes), size * count);
    const bool goesOn = transfer.tellDelegate([&](DCIURLConnectionDelegate& delegate, DCIURLConnection& connection) {
        delegate.connection(connection, chunk);
    });
    // The delegate may have waited for a slow reader of its own; that is no idleness of ours.
    transfer.noteActivity();
    return goesOn ? size * count : 0;
}

size_t sendBody(char* buffer, size_t size, size_t count, void* userData) {
    auto& transfer = *static_cast<Transfer*>(userData);
    if (transfer.canceled) return CURL_READFUNC_ABORT;
    transfer.noteActivity();
    const size_t wanted = size * count;
    if (transfer.bodyFile >= 0) {
        ssize_t got;
        do {
            got = pread(transfer.bodyFile, buffer, wanted, transfer.bodyOffset);
        } while (got < 0 && errno == EINTR);
        if (got < 0) return CURL_READFUNC_ABORT;
        transfer.bodyOffset += got;
        return static_cast<size_t>(got);
    }
    const auto bytes = transfer.request->HTTPBody()->bytes();
    const size_t length = std::min(wanted, bytes.size() - static_cast<size_t>(transfer.bodyOffset));
    std::memcpy(buffer, bytes.data() + transfer.bodyOffset, length);
    transfer.bodyOffset += static_cast<int64_t>(length);
    return length;
}

// A request sent again on a new connection, when a reused one turned out closed, sends the
// body again from its start.
int rewindBody(void* userData, curl_off_t offset, int origin) {
    auto& transfer = *static_cast<Transfer*>(userData);
    if (origin != SEEK_SET || offset < 0 || offset > transfer.bodySize) return CURL_SEEKFUNC_CANTSEEK;
    transfer.bodyOffset = offset;
    return CURL_SEEKFUNC_OK;
}

int reportProgress(void* userData, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
    auto& transfer = *static_cast<Transfer*>(userData);
    return transfer.reportUploadProgress(sent) ? 0 : 1;
}

// libcurl calls this right before it closes a socket of its own: the run loop stops watching
// it first, so a descriptor number the system hands out again is never mistaken for it.
int closeSocket(void* loader, curl_socket_t socket) {
    static_cast<DCIURLLoader*>(loader)->forgetSocket(socket);
    return close(socket);
}

// A handle of the loop when made on its thread, as connections are.
CURL* easyHandleFor(const std::weak_ptr<DCIURLLoader>& loader) {
    const auto owner = loader.lock();
    return owner && owner->isCurrent() ? owner->takeEasyHandle() : curl_easy_init();
}

DCIURLErrorCode errorCodeForResult(CURLcode result) {
    switch (result) {
    case CURLE_OPERATION_TIMEDOUT: return DCIURLErrorTimedOut;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY: return DCIURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT: return DCIURLErrorCannotConnectToHost;
    case CURLE_URL_MALFORMAT: return DCIURLErrorBadURL;
    case CURLE_UNSUPPORTED_PROTOCOL: return DCIURLErrorUnsupportedURL;
    case CURLE_TOO_MANY_REDIRECTS: return DCIURLErrorHTTPTooManyRedirects;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING: return DCIURLErrorNetworkConnectionLost;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM: return DCIURLErrorBadServerResponse;
    case CURLE_PEER_FAILED_VERIFICATION: return DCIURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR: return DCIURLErrorSecureConnectionFailed;
    default: return DCIURLErrorUnknown;
    }
}

}  // namespace

Transfer::Transfer(std::shared_ptr<const DCIURLRequest> urlRequest, std::weak_ptr<DCIURLConnectionDelegate> urlDelegate,
                   std::weak_ptr<DCIURLLoader> urlLoader)
    : request(std::move(urlRequest)),
      delegate(std::move(urlDelegate)),
      loader(std::move(urlLoader)),
      easy(easyHandleFor(loader)) {
    if (!easy) {
        setupError = DCIError(kDCIURLErrorDomain, DCIURLErrorUnknown, "libcurl could not make a transfer");
        return;
    }
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    // Nothing but the web: a URL to file:, scp: and the like is refused. Redirects are
    // followed by `headEnded`, which knows what each may carry where.
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    if (const auto& authorities = request->certificateAuthorityFile())
        curl_easy_setopt(easy, CURLOPT_CAINFO, authorities->c_str());
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kBufferSize);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kBufferSize);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, receiveHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, receiveData);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, sendBody);
    curl_easy_setopt(easy, CURLOPT_READDATA, this);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, rewindBody);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, reportProgress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    if (auto owner = loader.lock()) {
        curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, closeSocket);
        curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, owner.get());
    }

    // The time-out is one of idleness, as the host's request means it: connecting may take
    // that long, and so may a stretch without a single byte moving either way. libcurl's
    // low-speed limit averages, so a stall after a fast start would go on for seconds more;
    // the loader measures it instead.
    const double timeout = request->timeoutInterval() > 0 ? std::min(request->timeoutInterval(), 1e6) : 60;
    idleLimit = std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(timeout));

    for (const auto& [name, value] : request->allHTTPHeaderFields()) {
        // A line break would end the field early and smuggle whatever follows into the request.
        if (hasLineBreakOrNull(name) || hasLineBreakOrNull(value)) {
            setupError = DCIError(kDCIURLErrorDomain, DCIURLErrorBadURL,
                                  "the header field " + DCILoggedText(name) + " holds a line break");
            return;
        }
    }
    const std::string& method = request->HTTPMethod();
    // Anything but a token (spaces, line breaks) would rewrite the request line.
    if (!DCIIsHTTPToken(method)) {
        setupError =
            DCIError(kDCIURLErrorDomain, DCIURLErrorBadURL, "the method " + DCILoggedText(method) + " is no HTTP token");
        return;
    }
    if (request->HTTPBodyFilePath()) {
        const std::string& path = *request->HTTPBodyFilePath();
        bodyFile = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        struct stat status;
        if (bodyFile < 0 || fstat(bodyFile, &status) != 0 || !S_ISREG(status.st_mode)) {
            const int error = bodyFile < 0 ? errno : EINVAL;
            setupError = DCIError(kDCIURLErrorDomain, DCIURLErrorCannotOpenFile,
                                  DCIError::posixError(error, "request body " + path).localizedDescription());
            return;
        }
        bodySize = status.st_size;
    } else if (request->HTTPBody()) {
        bodySize = static_cast<int64_t>(request->HTTPBody()->length());
    }
    setupError = apply({request->URL(), method, request->HTTPBody() || request->HTTPBodyFilePath()});
}

std::optional<DCIError> Transfer::apply(const DCIURLHop& next) {
    hop = next;
    curl_easy_setopt(easy, CURLOPT_URL, hop.URL.c_str());

    // A 100 Continue round trip would only delay every upload.
    curl_slist* fields = curl_slist_append(nullptr, "Expect:");
    for (const auto& [name, value] : request->allHTTPHeaderFields()) {
        // Fields that tell who the request comes from are never sent on to another origin.
        if (credentialsDropped && DCIHeaderFieldIsSecret(name)) continue;
        fields = curl_slist_append(fields, (name + (value.empty() ? ";" : ": " + value)).c_str());
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, fields);
    curl_slist_free_all(std::exchange(headerList, fields));
    if (!fields) return DCIError(kDCIURLErrorDomain, DCIURLErrorUnknown, "no memory for the request's header fields");

    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, nullptr);
    if (hop.sendsBody) {
        bodyOffset = 0;
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodySize));
        if (hop.method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, hop.method.c_str());
    } else {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        if (hop.method == "HEAD") {
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
        } else if (hop.method != "GET") {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, hop.method.c_str());
        }
    }
    return std::nullopt;
}

bool Transfer::headEnded() {
    long statusCode = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &statusCode);
    // No code yet is a proxy's answer to CONNECT; 1xx heads come before the response.
    if (statusCode < 200) return true;
    // libcurl tells where a redirect leads only once its body is read; the decision whether to
    // hand the head over as the response cannot wait for a body that may never come.
    const auto location = DCIURLIsRedirectStatus(statusCode) ? DCIHeaderFieldValue(responseHeaders, "Location")
                                                             : std::nullopt;
    if (const auto target = location ? DCIURLResolvingLocation(hop.URL, *location) : std::nullopt) {
        auto next = DCIURLRedirectFor(statusCode, hop, *target, request->replaysMethodAcrossOrigins());
        if (next.schemeRefusal) {
            endingError = DCIError(kDCIURLErrorDomain, DCIURLErrorUnsupportedURL, *next.schemeRefusal);
            return false;
        }
        if (!next.replayRefusal) {
            if (redirectsFollowed == kMaximumRedirects) {
                endingError = DCIError(kDCIURLErrorDomain, DCIURLErrorHTTPTooManyRedirects, "too many redirects");
                return false;
            }
            nextHop = std::move(next);
            return true;
        }
        unfollowedRedirect = next.replayRefusal;
    }
    return deliverResponseOnce();
}

std::optional<DCIError> Transfer::followRedirect() {
    const DCIURLRedirect next = std::move(*nextHop);
    nextHop.reset();
    ++redirectsFollowed;
    skippedBodyBytes = 0;
    credentialsDropped = credentialsDropped || next.crossesOrigin;
    return apply(next.hop);
}

Transfer::~Transfer() {
    // Out of the multi handle by now: the loader holds every transfer it loads.
    if (const auto owner = loader.lock(); easy && owner && owner->isCurrent()) {
        owner->recycle(easy);
    } else if (easy) {
        curl_easy_cleanup(easy);
    }
    curl_slist_free_all(headerList);
    if (bodyFile >= 0) close(bodyFile);
}

bool Transfer::reportUploadProgress(int64_t totalSent) {
    if (canceled) return false;
    if (totalSent <= uploadReported) return true;
    const int64_t step = totalSent - uploadReported;
    uploadReported = totalSent;
    return tellDelegate([&](DCIURLConnectionDelegate& listener, DCIURLConnection& owner) {
        listener.connection(owner, step, totalSent, bodySize);
    });
}

bool Transfer::deliverResponseOnce() {
    if (canceled) return false;
    if (responseDelivered) return true;
    responseDelivered = true;
    curl_off_t sent = 0;
    curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
    if (!reportUploadProgress(sent)) return false;

    long statusCode = 0;
    curl_off_t length = -1;
    const char* url = nullptr;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &statusCode);
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
    const auto encoding = DCIHeaderFieldValue(responseHeaders, "Content-Encoding");
    if (encoding && !encoding->empty() && *encoding != "identity") length = -1;
    const DCIURLResponse response(url ? url : request->URL(), statusCode, length < 0 ? -1 : length,
                                  std::move(responseHeaders), unfollowedRedirect);
    return tellDelegate(
        [&](DCIURLConnectionDelegate& listener, DCIURLConnection& owner) { listener.connection(owner, response); });
}

void Transfer::tellEnd(const std::optional<DCIError>& failure) {
    ended = true;
    tellDelegate([&](DCIURLConnectionDelegate& listener, DCIURLConnection& owner) {
        if (failure) {
            listener.connection(owner, *failure);
        } else {
            listener.connectionDidFinishLoading(owner);
        }
    });
}

DCIError Transfer::errorForResult(CURLcode result) const {
    const std::string text = errorBuffer[0] ? std::string(errorBuffer) : std::string(curl_easy_strerror(result));
    return DCIError(kDCIURLErrorDomain, errorCodeForResult(result), text);
}

std::string DCIURLResponse::description() const {
    std::string text =
        "<DCIURLResponse: " + DCILoggedText(DCIURLWithoutCredentials(URL_)) + "> { Status Code: " + std::to_string(statusCode_) + ", Headers {";
    for (size_t i = 0; i < allHeaderFields_.size() && i < kDescribedHeaderFields; ++i) {
        const auto& [name, value] = allHeaderFields_[i];
        const std::string shown = DCIHeaderFieldIsSecret(name)                ? "***"
                                  : DCIHeaderFieldNamesEqual(name, "Location") ? DCIURLWithoutCredentials(value)
                                                                        : value;
        text += "\n    " + DCILoggedText(name, kDescribedFieldBytes) + " = " + DCILoggedText(shown, kDescribedFieldBytes) + ";";
    }
    if (allHeaderFields_.size() > kDescribedHeaderFields) text += "\n    ...";
    return text + "\n} }";
}

std::shared_ptr<DCIURLConnection> DCIURLConnection::initWithRequest(std::shared_ptr<const DCIURLRequest> request,
                                                                    std::weak_ptr<DCIURLConnectionDelegate> delegate) {
    if (!request) return nullptr;
    auto transfer = std::make_shared<Transfer>(request, std::move(delegate), DCIURLLoader::current());
    auto connection = std::shared_ptr<DCIURLConnection>(new DCIURLConnection(std::move(request), transfer));
    transfer->connection = connection;
    return connection;
}

bool DCIURLConnection::prepareLoading() {
    static const bool prepared = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    return prepared;
}

DCIURLConnection::~DCIURLConnection() { cancel(); }

void DCIURLConnection::start() {
    if (transfer_->started.exchange(true)) return;
    if (auto loader = transfer_->loader.lock()) loader->schedule(transfer_);
}

void DCIURLConnection::cancel() {
    if (transfer_->canceled.exchange(true) || !transfer_->started) return;
    auto loader = transfer_->loader.lock();
    if (!loader) return;
    if (loader->isCurrent()) {
        loader->remove(*transfer_);
    } else {
        loader->schedule(transfer_);
    }
}

std::string DCIURLConnection::description() const { return "<DCIURLConnection: " + request_->description() + ">"; }
