#include "CoreKestly/SampleFinder/DCIStoppableHashInternal.h"

#include "CoreKestly/Platform/RunLoop/DCIFileDescriptor.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

std::optional<std::string> DCISHA256UnlessStopped(const std::string& path, std::stop_token stop) {
    const DCIFileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return std::nullopt;
    std::vector<unsigned char> chunk(64 * 1024);
    for (;;) {
        if (stop.stop_requested()) return std::nullopt;
        const ssize_t count = read(file.get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        if (EVP_DigestUpdate(context.get(), chunk.data(), static_cast<size_t>(count)) != 1) return std::nullopt;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &length) != 1) return std::nullopt;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 0xF];
    }
    return hex;
}
