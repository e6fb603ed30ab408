#include "CoreKestly/FileSystem/KSTFileHash.h"

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <filesystem>
#include <random>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using HashFunction = std::optional<std::string> (*)(const std::string&);

// OpenSSL's one-shot SHA-256 over bytes in memory, the reference the streaming functions must match.
std::string referenceSha256(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static constexpr char kHexDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += kHexDigits[digest[i] >> 4];
        text += kHexDigits[digest[i] & 0x0f];
    }
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

TEST_P(FileHashTest, KnownDigests) {
    // Test vectors of FIPS 180-4: empty input, "abc", and one million "a" (many chunks).
    EXPECT_EQ(hash(folder.writeFile("empty", "")),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(hash(folder.writeFile("abc", "abc")), kSHA256OfABC);
    EXPECT_EQ(hash(folder.writeFile("million", std::string(1'000'000, 'a'))),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_P(FileHashTest, SizesAroundTheReadChunkMatchTheReference) {
    for (const size_t size : {4095u, 4096u, 4097u, 8192u, 3u * 1024 * 1024 + 17}) {
        const std::string bytes = randomBytes(size, static_cast<unsigned>(size));
        const auto digest = hash(folder.writeFile("file-" + std::to_string(size), bytes));
        ASSERT_TRUE(digest) << size;
        EXPECT_EQ(*digest, referenceSha256(bytes)) << size;
        EXPECT_EQ(digest->find_first_not_of("0123456789abcdef"), std::string::npos);
    }
}

TEST_P(FileHashTest, FollowsALinkToAFileAndAnswersNothingForWhatIsNotAReadableFile) {
    std::filesystem::create_symlink(folder.writeFile("target", "abc"), folder / "link");
    EXPECT_EQ(hash(folder / "link"), kSHA256OfABC);

    EXPECT_FALSE(hash(folder / "missing"));
    EXPECT_FALSE(hash(""));
    EXPECT_FALSE(hash(folder.makeFolder("a folder")));
    std::filesystem::create_symlink(folder / "nowhere", folder / "dangling");
    EXPECT_FALSE(hash(folder / "dangling"));
    // A FIFO with no writer would block a plain open and read forever after.
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    EXPECT_FALSE(hash(folder / "fifo"));
    // A regular file whose first read fails: the first page of the address space is never mapped.
    ASSERT_TRUE(std::filesystem::is_regular_file("/proc/self/mem"));
    EXPECT_FALSE(hash("/proc/self/mem"));
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

TEST(FileHashEcoTest, GivesThePlainDigestForAFileThatTakesSeveralSlices) {
    // Big enough that hashing it takes more than one 40 ms slice even on a fast machine.
    TemporaryDirectory folder;
    const std::string bytes = randomBytes(64 * 1024 * 1024, 7);
    const std::string path = folder.writeFile("large", bytes);
    const auto eco = KSTSha256ForFileAtPathEco(path);
    EXPECT_EQ(eco, referenceSha256(bytes));
    EXPECT_EQ(eco, KSTSha256ForFileAtPath(path));
}

}  // namespace
