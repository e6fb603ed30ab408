#include "CoreKestly/FileSystem/KSTFileHash.h"

#include "support/Testing.h"

#include <openssl/evp.h>

namespace {

using HashFunction = std::optional<std::string> (*)(const std::string&);

// OpenSSL's one-shot SHA-256 over bytes in memory, the reference the streaming functions must match.
std::string referenceSha256(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) text += {kHexDigits[digest[i] >> 4], kHexDigits[digest[i] & 0x0f]};
    return text;
}

std::string randomBytes(size_t count, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(count, '\0');
    for (auto& byte : bytes) byte = static_cast<char>(generator());
    return bytes;
}

class FileHashTest : public ::testing::TestWithParam<HashFunction> {
protected:
    std::optional<std::string> hash(const std::string& path) const { return GetParam()(path); }

    TemporaryDirectory folder;
};

// Empty, within one read, at and across the read chunk's edges, and many chunks.
TEST_P(FileHashTest, MatchesTheReferenceForEverySize) {
    for (const size_t size : {0u, 3u, 4095u, 4096u, 4097u, 3u * 1024 * 1024 + 17}) {
        const std::string bytes = randomBytes(size, static_cast<unsigned>(size));
        EXPECT_EQ(hash(folder.writeFile("file-" + std::to_string(size), bytes)), referenceSha256(bytes)) << size;
    }
}

TEST_P(FileHashTest, FollowsALinkToAFileAndAnswersNothingForWhatIsNotAReadableFile) {
    std::filesystem::create_symlink(folder.writeFile("target", "abc"), folder / "link");
    EXPECT_EQ(hash(folder / "link"), kSHA256OfABC);

    std::filesystem::create_symlink(folder / "nowhere", folder / "dangling");
    // A FIFO with no writer would block a plain open and read forever after.
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    // /proc/self/mem is a regular file whose first read fails: page zero is never mapped.
    for (const std::string& path : {folder / "missing", std::string(), folder.makeFolder("a folder"),
                                    folder / "dangling", folder / "fifo", std::string("/proc/self/mem")}) {
        EXPECT_FALSE(hash(path)) << path;
    }
    if (geteuid() != 0) {  // root reads files whatever their permissions
        const std::string path = folder.writeFile("secret", "secret");
        std::filesystem::permissions(path, std::filesystem::perms::none);
        EXPECT_FALSE(hash(path));
    }
}

INSTANTIATE_TEST_SUITE_P(PlainAndEco, FileHashTest,
                         ::testing::Values(&KSTSha256ForFileAtPath, &KSTSha256ForFileAtPathEco),
                         [](const ::testing::TestParamInfo<HashFunction>& function) {
                             return function.index == 0 ? "Plain" : "Eco";
                         });

TEST(FileHashEcoTest, GivesTheReferenceDigestForAFileThatTakesSeveralSlices) {
    // Big enough that hashing it takes more than one 40 ms slice even on a fast machine.
    TemporaryDirectory folder;
    const std::string bytes = randomBytes(64 * 1024 * 1024, 7);
    EXPECT_EQ(KSTSha256ForFileAtPathEco(folder.writeFile("large", bytes)), referenceSha256(bytes));
}

}  // namespace
