#include "CoreKestly/FileSystem/KSTFileHashInternal.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kReadChunkSize = 4096;

// Eco mode works in slices of a little over 40 ms, each followed by 14 ms of rest; the last,
// shorter slice rests in the same proportion.
constexpr std::chrono::nanoseconds kEcoWorkingSlice{40'000'000};
constexpr std::chrono::nanoseconds kEcoPause{14'000'000};
constexpr double kEcoTailFactor = 0.35;

// steady_clock counts nanoseconds on Linux, so there is no tick conversion to fetch and share.
using MonotonicClock = std::chrono::steady_clock;
static_assert(std::is_same_v<MonotonicClock::duration, std::chrono::nanoseconds>);

class ReadOnlyFile {
public:
    // Only regular files are opened: a FIFO or a device could block the caller or never end.
    // O_NONBLOCK keeps the open itself from waiting on a FIFO; it changes nothing for files.
    explicit ReadOnlyFile(const std::string& path)
        : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)) {
        struct stat status {};
        if (descriptor_ >= 0 && (::fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode))) close();
        // A file read in one chunk gains nothing from read-ahead advice but the system call.
        if (descriptor_ >= 0 && status.st_size > static_cast<off_t>(kReadChunkSize)) {
            ::posix_fadvise(descriptor_, 0, 0, POSIX_FADV_SEQUENTIAL);
        }
    }
    ~ReadOnlyFile() { close(); }
    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

    bool isOpen() const { return descriptor_ >= 0; }

    // Up to `size` bytes: the count read, 0 at the end of the file, -1 on an error.
    ssize_t read(unsigned char* buffer, size_t size) const {
        ssize_t count;
        do {
            count = ::read(descriptor_, buffer, size);
        } while (count < 0 && errno == EINTR);
        return count;
    }

private:
    void close() {
        if (descriptor_ >= 0) ::close(descriptor_);
        descriptor_ = -1;
    }

    int descriptor_;
};

// The SHA-256 implementation, fetched once: OpenSSL 3 looks up the algorithm of `EVP_sha256()`
// at every initialisation, under a lock that threads hashing small files at once queue on.
const EVP_MD* sha256() {
    static const std::unique_ptr<EVP_MD, void (*)(EVP_MD*)> fetched(EVP_MD_fetch(nullptr, "SHA256", nullptr), EVP_MD_free);
    return fetched ? fetched.get() : EVP_sha256();
}

class Sha256Digest {
public:
    Sha256Digest() : context_(EVP_MD_CTX_new()) {
        if (context_ && EVP_DigestInit_ex(context_.get(), sha256(), nullptr) != 1) context_.reset();
    }

    bool isValid() const { return context_ != nullptr; }
    bool update(const unsigned char* bytes, size_t count) {
        return EVP_DigestUpdate(context_.get(), bytes, count) == 1;
    }

    // The digest as 64 lower-case hex characters, byte 0 first; nothing if OpenSSL fails.
    std::optional<std::string> hexDigest() {
        KSTSha256Digest digest{};
        unsigned int length = 0;
        if (EVP_DigestFinal_ex(context_.get(), digest.data(), &length) != 1 || length != digest.size()) return std::nullopt;
        return KSTHexFromDigest(digest);
    }

private:
    struct ContextFree {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, ContextFree> context_;
};

// Feeds the whole file to `digest` one chunk at a time, asking `afterChunk` after each chunk
// whether to go on. False on a read or digest error, or when told to stop: what was fed so far
// must then be discarded.
template <class AfterChunk>
bool feedFile(const ReadOnlyFile& file, Sha256Digest& digest, AfterChunk afterChunk) {
    std::array<unsigned char, kReadChunkSize> buffer;
    for (;;) {
        const ssize_t count = file.read(buffer.data(), buffer.size());
        if (count == 0) return true;
        if (count < 0 || !digest.update(buffer.data(), static_cast<size_t>(count))) return false;
        if (!afterChunk()) return false;
    }
}

// Keeps eco hashing to its slices of work and rest.
class EcoPacer {
public:
    void chunkDone() {
        workingTime_ = MonotonicClock::now() - sliceStart_;
        if (workingTime_ <= kEcoWorkingSlice) return;
        std::this_thread::sleep_for(kEcoPause);
        sliceStart_ = MonotonicClock::now();
        workingTime_ = {};
    }

    void restAfterLastSlice() const {
        const auto tail = std::chrono::nanoseconds(static_cast<int64_t>(kEcoTailFactor * static_cast<double>(workingTime_.count())));
        if (tail > std::chrono::nanoseconds::zero()) std::this_thread::sleep_for(tail);
    }

private:
    MonotonicClock::time_point sliceStart_ = MonotonicClock::now();
    std::chrono::nanoseconds workingTime_{};
};

// The value of each hex digit, either case, and -1 for every other byte: every hash a cache
// answers is read back into a tree, so this is asked 64 times per file of a scan.
constexpr std::array<int8_t, 256> kHexValues = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int digit = 0; digit < 10; ++digit) values[static_cast<size_t>('0' + digit)] = static_cast<int8_t>(digit);
    for (int letter = 0; letter < 6; ++letter) {
        values[static_cast<size_t>('a' + letter)] = values[static_cast<size_t>('A' + letter)] = static_cast<int8_t>(10 + letter);
    }
    return values;
}();

int hexValue(char c) { return kHexValues[static_cast<unsigned char>(c)]; }

}  // namespace

std::string KSTHexFromDigest(const KSTSha256Digest& digest) {
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string text(2 * digest.size(), '\0');
    for (size_t i = 0; i < digest.size(); ++i) {
        text[2 * i] = kHexDigits[digest[i] >> 4];
        text[2 * i + 1] = kHexDigits[digest[i] & 0x0f];
    }
    return text;
}

std::optional<KSTSha256Digest> KSTDigestFromHex(std::string_view hex) {
    KSTSha256Digest digest{};
    if (hex.size() != 2 * digest.size()) return std::nullopt;
    for (size_t i = 0; i < digest.size(); ++i) {
        const int high = hexValue(hex[2 * i]), low = hexValue(hex[2 * i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        digest[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return digest;
}

KSTFileHashOutcome KSTSha256OfFileAtPath(const std::string& path, bool eco, const std::atomic<bool>& stop) {
    const ReadOnlyFile file(path);
    if (!file.isOpen()) return {};
    Sha256Digest digest;
    if (!digest.isValid()) return {true, std::nullopt};
    if (!eco) {
        if (!feedFile(file, digest, [&] { return !stop.load(std::memory_order_relaxed); })) return {true, std::nullopt};
        return {true, digest.hexDigest()};
    }
    EcoPacer pacer;
    const bool complete = feedFile(file, digest, [&] {
        pacer.chunkDone();
        return !stop.load(std::memory_order_relaxed);
    });
    if (!stop.load()) pacer.restAfterLastSlice();  // a failed read rests too: the work was done all the same
    if (!complete) return {true, std::nullopt};
    return {true, digest.hexDigest()};
}

std::optional<std::string> KSTSha256ForFileAtPath(const std::string& path) {
    static const std::atomic<bool> never{false};
    return KSTSha256OfFileAtPath(path, false, never).sha;
}

std::optional<std::string> KSTSha256ForFileAtPathEco(const std::string& path) {
    static const std::atomic<bool> never{false};
    return KSTSha256OfFileAtPath(path, true, never).sha;
}
