#pragma once

#include "CoreKestly/Platform/Network/DCIURLRequest.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What the command line asks for that cannot be done, for the message of exit status 2.
struct UsageError {
    std::string message;
};

/// What every request of one `kestly download` shares, as the command line gives it.
struct DownloadRequestOptions {
    std::string method;
    std::vector<std::string> headers;
    /// TEXT, `@FILE`, or `@-` for standard input.
    std::optional<std::string> data;
    double timeout = 60;
    /// The most a body may have once decoded: a number of bytes, or of KiB, MiB, GiB or TiB
    /// with the suffix K, M, G or T.
    std::optional<std::string> maximumSize;
    /// The certificate authorities to trust instead of the system's; without it, the file that
    /// $CURL_CA_BUNDLE or else $SSL_CERT_FILE names, as curl has it.
    std::optional<std::string> certificateAuthorities;
};

/// The fields every request shares, checked before any transfer starts: the method must be an
/// HTTP token, each header 'Name: value' on one line, and a body that is no regular file
/// (`@-`, a pipe) is read now, once, so that every URL sends the same. Throws `UsageError`.
DCIURLRequestFields makeSharedRequestFields(const DownloadRequestOptions& options);

/// The request for `url`, which must be an http or https URL without spaces or control
/// characters. Without a maximum size of its own, a body may have 4 GiB for a file and
/// 512 MiB for standard output. Throws `UsageError`.
std::shared_ptr<DCIURLRequest> makeRequestForURL(DCIURLRequestFields fields, const std::string& url,
                                                 bool toStandardOutput);
