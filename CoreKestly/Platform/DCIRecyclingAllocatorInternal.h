#pragma once

// An allocator for objects that are made on one thread and released on another, as events
// are: made by workers, released on the main thread after delivery. Through malloc, every
// such release lands in the arena of the thread that made the object, and the two threads
// then contend for that arena's lock on every object. Here a released block waits in a
// cache of the releasing thread, and blocks move between threads a magazine of 64 at a time
// under a lock taken once per magazine.

#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define KESTLY_POISON_BLOCK(block, size) ASAN_POISON_MEMORY_REGION(block, size)
#define KESTLY_UNPOISON_BLOCK(block, size) ASAN_UNPOISON_MEMORY_REGION(block, size)
#else
#define KESTLY_POISON_BLOCK(block, size) ((void)(block), (void)(size))
#define KESTLY_UNPOISON_BLOCK(block, size) ((void)(block), (void)(size))
#endif

#if defined(__SANITIZE_THREAD__)
#define KESTLY_RECYCLES_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTLY_RECYCLES_BLOCKS 0
#endif
#endif
#ifndef KESTLY_RECYCLES_BLOCKS
#define KESTLY_RECYCLES_BLOCKS 1
#endif

namespace kestly_recycling {

// Blocks of one size and alignment. Each thread keeps up to two magazines' worth; full
// magazines wait in a shared depot of bounded size, beyond which blocks go back to the heap.
template <size_t Size, size_t Alignment>
class BlockDepot {
public:
    static void* take() {
        if constexpr (!kRecycles) return allocateFromHeap();
        Cache* cache = Cache::current();
        if (cache && cache->blocks.empty()) refill(cache->blocks);
        if (!cache || cache->blocks.empty()) return allocateFromHeap();
        void* block = cache->blocks.back();
        cache->blocks.pop_back();
        KESTLY_UNPOISON_BLOCK(block, Size);
        return block;
    }

    static void give(void* block) {
        if constexpr (!kRecycles) return release(block);
        KESTLY_POISON_BLOCK(block, Size);
        Cache* cache = Cache::current();
        if (!cache) return release(block);
        if (cache->blocks.size() == 2 * kMagazine) spill(cache->blocks, kMagazine);
        cache->blocks.push_back(block);
    }

private:
    // ThreadSanitizer learns of an object's end from its free: a block that is never freed
    // would carry one object's synchronisation into the next and hide races, so under it
    // every block goes back to the heap.
    static constexpr bool kRecycles = KESTLY_RECYCLES_BLOCKS;
    static constexpr size_t kMagazine = 64;
    static constexpr size_t kDepotMagazines = 256;  // 16,384 blocks kept at most

    // A thread's cache; null while the thread's storage is being torn down, when blocks go
    // straight to the heap.
    struct Cache {
        std::vector<void*> blocks;
        Cache() { blocks.reserve(2 * kMagazine); }
        ~Cache() {
            spill(blocks, blocks.size());
            torn() = true;
        }
        static bool& torn() {
            thread_local bool value = false;
            return value;
        }
        static Cache* current() {
            if (torn()) return nullptr;
            thread_local Cache cache;
            return &cache;
        }
    };

    struct Depot {
        std::mutex mutex;
        std::vector<std::vector<void*>> magazines;
    };

    // Never destroyed: threads may release blocks while the process exits.
    static Depot& depot() {
        static Depot* const shared = new Depot;
        return *shared;
    }

    // The plain operator new where the alignment allows, so that a host's replacement of it
    // sees these blocks as it sees any other.
    static constexpr bool kOverAligned = Alignment > __STDCPP_DEFAULT_NEW_ALIGNMENT__;

    static void* allocateFromHeap() {
        if constexpr (kOverAligned) return ::operator new(Size, std::align_val_t(Alignment));
        return ::operator new(Size);
    }

    static void release(void* block) {
        KESTLY_UNPOISON_BLOCK(block, Size);
        if constexpr (kOverAligned) return ::operator delete(block, std::align_val_t(Alignment));
        ::operator delete(block);
    }

    static void refill(std::vector<void*>& blocks) {
        Depot& shared = depot();
        std::vector<void*> magazine;
        {
            std::lock_guard lock(shared.mutex);
            if (shared.magazines.empty()) return;
            magazine = std::move(shared.magazines.back());
            shared.magazines.pop_back();
        }
        blocks.insert(blocks.end(), magazine.begin(), magazine.end());
    }

    // Moves the last `count` blocks to the depot, or to the heap when the depot is full.
    static void spill(std::vector<void*>& blocks, size_t count) {
        if (count == 0) return;
        std::vector<void*> magazine(blocks.end() - static_cast<std::ptrdiff_t>(count), blocks.end());
        blocks.resize(blocks.size() - count);
        {
            Depot& shared = depot();
            std::lock_guard lock(shared.mutex);
            if (shared.magazines.size() < kDepotMagazines) {
                shared.magazines.push_back(std::move(magazine));
                return;
            }
        }
        for (void* block : magazine) release(block);
    }
};

}  // namespace kestly_recycling

// A standard allocator over BlockDepot for single objects, as std::allocate_shared uses it;
// arrays go to the heap.
template <class T>
struct DCIRecyclingAllocator {
    using value_type = T;

    DCIRecyclingAllocator() = default;
    template <class U>
    DCIRecyclingAllocator(const DCIRecyclingAllocator<U>&) {}

    T* allocate(size_t count) {
        if (count != 1) return std::allocator<T>().allocate(count);
        return static_cast<T*>(Depot::take());
    }
    void deallocate(T* object, size_t count) {
        if (count != 1) return std::allocator<T>().deallocate(object, count);
        Depot::give(object);
    }

    template <class U>
    bool operator==(const DCIRecyclingAllocator<U>&) const {
        return true;
    }

private:
    using Depot = kestly_recycling::BlockDepot<sizeof(T), alignof(T)>;
};
