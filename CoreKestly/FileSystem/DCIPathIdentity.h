#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

/// The identity value of a file or folder of the tree: a 64-bit hash of its absolute path
/// that is the same in every process and on every run (FNV-1a over the bytes, then a final
/// mix so that every bit of the result depends on every byte). Equal paths give equal values.
constexpr uint64_t DCIPathHash(std::string_view path) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (const char byte : path) {
        hash ^= static_cast<unsigned char>(byte);
        hash *= 0x100000001b3ULL;
    }
    hash ^= hash >> 33;
    hash *= 0xff51afd7ed558ccdULL;
    hash ^= hash >> 33;
    hash *= 0xc4ceb9fe1a85ec53ULL;
    hash ^= hash >> 33;
    return hash;
}

/// Hashing and equality of shared tree objects by their own identity (`hash()` and
/// `isEqual()`), so that sets of them hold one member per path.
struct DCIIdentityHash {
    template <class T>
    size_t operator()(const std::shared_ptr<T>& object) const {
        return static_cast<size_t>(object->hash());
    }
};

struct DCIIdentityEqual {
    template <class T>
    bool operator()(const std::shared_ptr<T>& a, const std::shared_ptr<T>& b) const {
        return a->isEqual(*b);
    }
};
