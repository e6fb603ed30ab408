// What a worker does with its connection's callbacks: judging the status code, recording the
// entity tag, writing the body, counting progress and ending the action.

#include "CoreKestly/Downloads/DCIDownloader.h"

#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "CoreKestly/Platform/Values/DCIDate.h"
#include "CoreKestly/Platform/Values/DCIFormat.h"
#include "CoreKestly/Platform/Values/DCILocalizedString.h"
#include "CoreKestly/Platform/Values/DCILoggedTextInternal.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

// A data download holds its body in memory; a server that sends more than this ends it.
constexpr uint64_t kMaximumDataSize = uint64_t{512} << 20;
// Room made up front for a stated length, which is only the server's word; a longer body
// grows the buffer as it comes.
constexpr uint64_t kLargestReservation = uint64_t{4} << 20;

// "Kestly" error codes.
constexpr int64_t kRefusedStatusErrorCode = 2;
constexpr int64_t kDataTooLargeErrorCode = 3;

// An entity tag of 32 characters in quote marks, the service's MD5 form, is kept without them.
constexpr size_t kQuotedTagLength = 34;
// Longer tags, or tags with control characters, are no entity tags anyone could check.
constexpr size_t kMaximumTagLength = 1024;

bool isUsableTag(std::string_view tag) {
    return tag.size() <= kMaximumTagLength &&
           std::ranges::none_of(tag, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

// The longest a write waits for a slow reader before it looks at the host's wish again.
constexpr int kReaderWaitMilliseconds = 500;

// 0, or the errno of the write that failed, taken before anything else can change it. A FIFO
// or pipe, opened without blocking, answers EAGAIN while its reader is behind: the write waits
// for room, so a slow reader slows the download rather than failing it, and ends early
// (ECANCELED) once `stopped` answers true.
template <class Stopped>
int writeWhole(int file, std::span<const uint8_t> bytes, Stopped&& stopped) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EAGAIN) {
            pollfd room{file, POLLOUT, 0};
            poll(&room, 1, kReaderWaitMilliseconds);
            if (stopped()) return ECANCELED;
            continue;
        }
        if (written < 0) return errno;
        if (written == 0) return EIO;
        bytes = bytes.subspan(static_cast<size_t>(written));
    }
    return 0;
}

}  // namespace

std::string DCIDownloader::loggedCurrentURL() const {
    const auto action = currentAction_.load();
    const auto request = action ? action->contextObjectForKey(kDCIDownloaderRequestKey) : std::nullopt;
    const auto urlRequest = request ? request->object<DCIURLRequest>() : nullptr;
    return urlRequest ? DCILoggedText(DCIURLWithoutCredentials(urlRequest->URL())) : std::string(kDCINilDescription);
}

bool DCIDownloader::stopsForHost() {
    const auto action = currentAction_.load();
    if (action && !isStoppedByHost(action->status())) return false;
    reset();
    return true;
}

void DCIDownloader::failCurrentAction(const DCIError& error) {
    DCLogError("%@ Failed download of %@ with error %@", name_, loggedCurrentURL(), error);
    endCurrentAction([this, error](DCIAction& action) {
        action.setContextObject(error, kDCIError);
        action.setContextObject(shared_from_this(), kDCIDownloaderDownloaderKey);
        action.changeStatus(DCIActionStatusFailed);
    });
}

void DCIDownloader::logProgressOncePerSecond(const char* format, uint64_t count, uint64_t total) {
    const double now = DCIAbsoluteTimeGetCurrent();
    if (now - lastLogTime_.load() <= 1.0) return;
    // The counts print as 32-bit signed numbers, as they always have in these lines.
    DCLogInfo(format, static_cast<int32_t>(count), static_cast<int32_t>(total), name_);
    lastLogTime_.store(now);
}

void DCIDownloader::connection(DCIURLConnection&, int64_t didSendBodyData, int64_t totalBytesWritten,
                               int64_t totalBytesExpectedToWrite) {
    if (stopsForHost()) return;
    logProgressOncePerSecond("Uploaded %d bytes of %d (%@)", static_cast<uint64_t>(totalBytesWritten),
                             static_cast<uint64_t>(totalBytesExpectedToWrite));
    expectedTotal_ = static_cast<uint64_t>(std::max<int64_t>(totalBytesExpectedToWrite, 0));
    addProgress(static_cast<uint64_t>(std::max<int64_t>(didSendBodyData, 0)));
}

void DCIDownloader::connection(DCIURLConnection&, const DCIURLResponse& didReceiveResponse) {
    if (stopsForHost()) return;
    const auto action = currentAction_.load();
    const int64_t code = didReceiveResponse.statusCode();
    action->setContextObject(DCIValue(code), kDCIDownloaderResponseStatusCodeKey);

    // Any success is one; a conflict is the service's answer to an upload it already has.
    if ((code < 200 || code > 299) && code != 409) {
        std::string message = DCIFormat(DCILocalizedString("Error: the server failed with error code %lu"), code);
        if (const auto& reason = didReceiveResponse.unfollowedRedirectReason()) message += " (" + *reason + ")";
        DCLogInfo("%@: %@ (%@)", message, didReceiveResponse.description(), name_);
        endCurrentAction([this, code, message](DCIAction& ended) {
            ended.setContextObject(DCIError("Kestly", kRefusedStatusErrorCode, message), kDCIError);
            ended.setContextObject(shared_from_this(), kDCIDownloaderDownloaderKey);
            // A missing item is an answer, not a failure; its status code is the only sign.
            ended.changeStatus(code == 404 ? DCIActionStatusCompleted : DCIActionStatusFailed);
        });
        return;
    }
    if (code != 200) DCLogInfo("%@ Server returned status code of %d - accepting", name_, code);

    if (didReceiveResponse.expectedContentLength() > 0) {
        expectedTotal_ += static_cast<uint64_t>(didReceiveResponse.expectedContentLength());
    }
    if (downloadFile_.load() < 0) {
        auto buffer = std::make_shared<std::vector<uint8_t>>();
        buffer->reserve(static_cast<size_t>(std::min(expectedTotal_, kLargestReservation)));
        dataReceived_.store(std::move(buffer));
    }

    if (auto tag = didReceiveResponse.valueForHTTPHeaderField("Etag"); tag && isUsableTag(*tag)) {
        if (tag->size() == kQuotedTagLength) *tag = tag->substr(1, kQuotedTagLength - 2);
        if (tag->find('-') != std::string::npos) {
            DCLogInfo("Ignoring S3 etag (%@) as it is of the multipart upload form which we can't check", *tag);
        } else {
            action->setContextObject(DCIValue(*tag), kDCIDownloaderEtag);
        }
    }
}

void DCIDownloader::connection(DCIURLConnection&, std::span<const uint8_t> didReceiveData) {
    if (stopsForHost()) return;
    logProgressOncePerSecond("Downloaded %d bytes of %d (%@)", currentDownloadedSize_.load(),
                             totalDownloadSize_.load());
    addProgress(didReceiveData.size());

    if (const int file = downloadFile_.load(); file >= 0) {
        const int error = writeWhole(file, didReceiveData, [this] { return stopsForHost(); });
        if (error != 0 && error != ECANCELED) {
            const auto path = currentAction_.load()->contextObjectForKey(kDCIDownloaderFilePathKey);
            failCurrentAction(DCIError::posixError(error, "write " + (path ? path->description() : std::string())));
        }
        return;
    }
    const auto buffer = dataReceived_.load();
    if (!buffer) return;
    const size_t needed = buffer->size() + didReceiveData.size();
    if (needed > kMaximumDataSize) {
        failCurrentAction(DCIError(
            "Kestly", kDataTooLargeErrorCode,
            DCIFormat("The response is larger than the %lu bytes a data download may hold", kMaximumDataSize)));
        return;
    }
    // Doubling, but never past the most a body may hold: the last growth would otherwise make
    // room for twice that.
    if (needed > buffer->capacity())
        buffer->reserve(std::min<size_t>(std::max(needed, 2 * buffer->capacity()), kMaximumDataSize));
    buffer->insert(buffer->end(), didReceiveData.begin(), didReceiveData.end());
}

void DCIDownloader::connection(DCIURLConnection&, const DCIError& didFailWithError) {
    DCLogError("CONNECTION FAIL %@ (%@)", loggedCurrentURL(), name_);
    endCurrentAction([this, didFailWithError](DCIAction& action) {
        action.setContextObject(didFailWithError, kDCIError);
        action.setContextObject(shared_from_this(), kDCIDownloaderDownloaderKey);
        action.changeStatus(DCIActionStatusFailed);
    });
}

void DCIDownloader::connectionDidFinishLoading(DCIURLConnection&) {
    DCLogInfo("ACF CONNECTION END %@ (%@)", [this] { return loggedCurrentURL(); }, name_);
    const bool handsDataOver = downloadFile_.load() < 0;
    endCurrentAction([this, handsDataOver, buffer = dataReceived_.load()](DCIAction& action) {
        action.setContextObject(shared_from_this(), kDCIDownloaderDownloaderKey);
        if (handsDataOver) {
            action.setContextObject(DCIValue(DCIData(buffer ? std::move(*buffer) : std::vector<uint8_t>())),
                                    kDCIDownloaderDataKey);
        }
        // The last count the Running action shows is the whole, also when no length was stated.
        handleProgress();
        action.changeStatus(DCIActionStatusCompleted);
    });
}
