#pragma once

#include <chrono>
#include <cstdint>
#include <string>

/// How far a first scan's hashing has come, as one line for a terminal: "hashing, 1200 of
/// 5000 files, 310.0 of 1200.0 MB, 95.2 MB/s, 9 s left". The rate counts the bytes hashed
/// since `elapsed` began; the time left is only given once there is a rate.
std::string hashingProgress(uint64_t filesHashed, uint64_t files, uint64_t bytesHashed, uint64_t bytes,
                            std::chrono::duration<double> elapsed);
