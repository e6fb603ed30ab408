// File hashing against its limits, over one 256 MiB file that sits in the page cache:
// KSTSha256ForFileAtPath; OpenSSL's SHA-256 over the same bytes already in memory (the compute
// limit); the same read-and-hash loop with larger read chunks (what the 4,096-byte chunk
// costs); sha256sum on the file; and eco mode, whose "work_share" counter is the share of wall
// time spent working, designed to be 40 / (40 + 14) = 0.741.
//
// The file is made under TMPDIR (else /tmp) and removed at the end.

#include "CoreKestly/FileSystem/KSTFileHash.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t kFileSize = 256u << 20;

std::string gFilePath;
std::vector<unsigned char> gFileBytes;

void makeFile() {
    const char* temporary = std::getenv("TMPDIR");
    gFilePath = std::string(temporary && *temporary ? temporary : "/tmp") + "/kestly-hash-bench-" +
                std::to_string(getpid());
    gFileBytes.resize(kFileSize);
    std::mt19937_64 generator(42);
    for (size_t i = 0; i < kFileSize; i += 8) {
        const uint64_t word = generator();
        std::memcpy(&gFileBytes[i], &word, 8);
    }
    std::ofstream(gFilePath, std::ios::binary)
        .write(reinterpret_cast<const char*>(gFileBytes.data()), static_cast<std::streamsize>(kFileSize));
}

void hashFile(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(KSTSha256ForFileAtPath(gFilePath));
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileSize));
}

void hashBytesInMemory(benchmark::State& state) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    for (auto _ : state) {
        EVP_Digest(gFileBytes.data(), gFileBytes.size(), digest, &length, EVP_sha256(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileSize));
}

// The library's loop with the read chunk as the argument: what a larger chunk would gain.
void readAndHashWithChunk(benchmark::State& state) {
    std::vector<unsigned char> buffer(static_cast<size_t>(state.range(0)));
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    for (auto _ : state) {
        const int descriptor = open(gFilePath.c_str(), O_RDONLY | O_CLOEXEC);
        EVP_MD_CTX* context = EVP_MD_CTX_new();
        EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
        for (ssize_t count; (count = read(descriptor, buffer.data(), buffer.size())) > 0;) {
            EVP_DigestUpdate(context, buffer.data(), static_cast<size_t>(count));
        }
        EVP_DigestFinal_ex(context, digest, &length);
        EVP_MD_CTX_free(context);
        close(descriptor);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileSize));
}

void sha256sumProgram(benchmark::State& state) {
    const std::string command = "sha256sum '" + gFilePath + "' > /dev/null";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) state.SkipWithError("sha256sum failed");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileSize));
}

void hashFileEco(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    Clock::duration working{}, wall{};
    for (auto _ : state) {
        const auto start = Clock::now();
        benchmark::DoNotOptimize(KSTSha256ForFileAtPath(gFilePath));
        const auto middle = Clock::now();
        benchmark::DoNotOptimize(KSTSha256ForFileAtPathEco(gFilePath));
        working += middle - start;
        wall += Clock::now() - middle;
    }
    // The plain call's time is the work the eco call spreads over its wall time.
    state.counters["work_share"] = std::chrono::duration<double>(working) / std::chrono::duration<double>(wall);
    state.counters["designed_share"] = 40.0 / (40.0 + 14.0);
    state.counters["eco_ms"] = std::chrono::duration<double, std::milli>(wall).count() / static_cast<double>(state.iterations());
}

}  // namespace

BENCHMARK(hashFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(hashBytesInMemory)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(readAndHashWithChunk)->RangeMultiplier(4)->Range(4096, 1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(sha256sumProgram)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(hashFileEco)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    makeFile();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove(gFilePath);
    return 0;
}
