#pragma once

// What every test program uses: GoogleTest, temporary folders, the standard library's
// containers, threads and files, and the POSIX calls tests make on files and children.
// One include keeps each test file to the headers of what it tests.

#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// Whether this build runs under AddressSanitizer or ThreadSanitizer, whose shadow memory and
/// quarantine make every program of the build take several times the memory it would.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kUnderMemorySanitizer = true;
#elif defined(__has_feature)
inline constexpr bool kUnderMemorySanitizer = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
inline constexpr bool kUnderMemorySanitizer = false;
#endif

/// Runs `body(i)` once on each of `count` threads, `i` from 0; the threads are joined when the
/// returned vector goes, at once if it is not kept.
template <class Body>
std::vector<std::jthread> startThreads(int count, Body body) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
    return threads;
}

/// Runs `work` here while `count` threads call `body` over and over, at least once each, and
/// returns when all have stopped, also when `work` throws: readers racing a writer, for the
/// checks `body` makes and for ThreadSanitizer.
inline void whileRepeatedOnThreads(int count, const std::function<void()>& body, const std::function<void()>& work) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back([&](std::stop_token stop) {
        do body();
        while (!stop.stop_requested());
    });
    work();
}
