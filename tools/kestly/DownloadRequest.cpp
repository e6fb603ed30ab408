// The requests of `kestly download`: whatever about them can be wrong is found before the
// first transfer starts, so that a mistyped command line exits 2 and fetches nothing.

#include "DownloadRequest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

constexpr uint64_t kDefaultMaximumFileSize = uint64_t{4} << 30;
constexpr uint64_t kDefaultMaximumOutputSize = uint64_t{512} << 20;

// "1000", "512K", "4G": bytes, or binary multiples of them.
uint64_t parseSize(const std::string& text) {
    size_t end = 0;
    uint64_t number = 0;
    try {
        if (!text.empty() && std::isdigit(static_cast<unsigned char>(text[0]))) number = std::stoull(text, &end);
    } catch (const std::out_of_range&) {
        end = 0;
    }
    constexpr std::string_view kSuffixes = "KMGT";
    const auto suffix = end + 1 == text.size() ? kSuffixes.find(static_cast<char>(std::toupper(text[end])))
                                               : std::string_view::npos;
    const int shift = suffix == std::string_view::npos ? 0 : 10 * static_cast<int>(suffix + 1);
    if (end == 0 || (end != text.size() && shift == 0) || number > (UINT64_MAX >> shift))
        throw UsageError{"not a size: " + text};
    return number << shift;
}

// A body read into memory (from standard input, a pipe) may be no larger; a file is sent from
// the disk whatever its size.
constexpr size_t kMaximumReadBody = size_t{64} << 20;

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::ranges::equal(text.substr(0, prefix.size()), prefix,
                              [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

// "Name: value", refusing what would break the request's framing.
std::pair<std::string, std::string> parseHeader(const std::string& line) {
    const auto colon = line.find(':');
    if (colon == 0 || colon == std::string::npos || line.find_first_of("\r\n") != std::string::npos ||
        line.substr(0, colon).find_first_of(" \t") != std::string::npos) {
        throw UsageError{"not a header of the form 'Name: value': " + line};
    }
    const auto valueStart = line.find_first_not_of(" \t", colon + 1);
    return {line.substr(0, colon), valueStart == std::string::npos ? "" : line.substr(valueStart)};
}

std::shared_ptr<const DCIData> readWhole(int file, const std::string& name) {
    std::vector<uint8_t> bytes;
    uint8_t buffer[65536];
    for (;;) {
        const ssize_t count = read(file, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw UsageError{"cannot read " + name + ": " + std::strerror(errno)};
        if (count == 0) return std::make_shared<const DCIData>(std::move(bytes));
        if (bytes.size() + static_cast<size_t>(count) > kMaximumReadBody)
            throw UsageError{name + " holds more than the 64 MiB a body read into memory may have"};
        bytes.insert(bytes.end(), buffer, buffer + count);
    }
}

// `@FILE`'s body: sent from the file as the request goes when it is a regular one, read now
// when it is a stream, which could be read only once.
void setBodyFromFile(DCIURLRequestFields& fields, const std::string& name) {
    if (name == "-") {
        fields.HTTPBody = readWhole(STDIN_FILENO, "standard input");
        return;
    }
    const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) throw UsageError{"cannot read " + name + ": " + std::strerror(errno)};
    struct stat status;
    const bool isRegular = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    try {
        if (isRegular) {
            fields.HTTPBodyFilePath = name;
        } else {
            fields.HTTPBody = readWhole(file, name);
        }
    } catch (...) {
        close(file);
        throw;
    }
    close(file);
}

}  // namespace

DCIURLRequestFields makeSharedRequestFields(const DownloadRequestOptions& options) {
    DCIURLRequestFields fields;
    fields.HTTPMethod = !options.method.empty() ? options.method : options.data ? "POST" : "GET";
    if (!DCIIsHTTPToken(fields.HTTPMethod)) throw UsageError{"the method is no HTTP token: " + fields.HTTPMethod};
    for (const auto& header : options.headers) fields.HTTPHeaderFields.push_back(parseHeader(header));
    if (options.data && options.data->starts_with('@')) {
        setBodyFromFile(fields, options.data->substr(1));
    } else if (options.data) {
        fields.HTTPBody = std::make_shared<const DCIData>(*options.data);
    }
    fields.timeoutInterval = options.timeout;
    if (options.maximumSize) fields.maximumBodySize = parseSize(*options.maximumSize);
    fields.certificateAuthorityFile = options.certificateAuthorities;
    for (const char* variable : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) {
        const char* file = std::getenv(variable);
        if (!fields.certificateAuthorityFile && file && *file) fields.certificateAuthorityFile = file;
    }
    if (fields.certificateAuthorityFile && access(fields.certificateAuthorityFile->c_str(), R_OK) != 0)
        throw UsageError{"cannot read " + *fields.certificateAuthorityFile + ": " + std::strerror(errno)};
    return fields;
}

std::shared_ptr<DCIURLRequest> makeRequestForURL(DCIURLRequestFields fields, const std::string& url,
                                                 bool toStandardOutput) {
    if (!startsWithIgnoringCase(url, "http://") && !startsWithIgnoringCase(url, "https://"))
        throw UsageError{"not an http or https URL: " + url};
    if (std::ranges::any_of(url, [](unsigned char c) { return c <= ' ' || c == 0x7f; }))
        throw UsageError{"a URL holds a space or a control character: " + url};
    fields.URL = url;
    if (!fields.maximumBodySize) fields.maximumBodySize = toStandardOutput ? kDefaultMaximumOutputSize : kDefaultMaximumFileSize;
    return DCIURLRequest::requestWithFields(std::move(fields));
}
