#pragma once

// An allocator for objects that are made on one thread and released on another, as events
// are: made by workers, released on the main thread after delivery. Through malloc, every
// such release lands in the arena of the thread that made the object, and the two threads
// then contend for that arena's lock on every object. Here a released block waits in a
// cache of the releasing thread, and blocks move between threads a magazine of 64 at a time
// under a lock taken once per magazine.

#include <algorithm>
#include <array>
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
// Releasing a block never throws: it is called from destructors.
template <size_t Size, size_t Alignment>
class BlockDepot {
public:
    static void* take() {
        if constexpr (!kRecycles) return allocateFromHeap();
        Cache* cache = Cache::current();
        if (!cache) return allocateFromHeap();
        if (cache->count == 0) refill(*cache);
        if (cache->count == 0) return allocateFromHeap();
        void* block = cache->blocks[--cache->count];
        KESTLY_UNPOISON_BLOCK(block, Size);
        return block;
    }

    static void give(void* block) noexcept {
        if constexpr (!kRecycles) return release(block);
        Cache* cache = Cache::current();
        if (!cache) return release(block);
        if (cache->count == cache->blocks.size()) spill(*cache, kMagazine);
        KESTLY_POISON_BLOCK(block, Size);
        cache->blocks[cache->count++] = block;
    }

private:
    // ThreadSanitizer learns of an object's end from its free: a block that is never freed
    // would carry one object's synchronisation into the next and hide races, so under it
    // every block goes back to the heap.
    static constexpr bool kRecycles = KESTLY_RECYCLES_BLOCKS;
    static constexpr size_t kMagazine = 64;
    static constexpr size_t kDepotMagazines = 256;  // 16,384 blocks kept at most

    using Magazine = std::vector<void*>;

    // A thread's cache, of fixed size so that filling it never allocates; null while the
    // thread's storage is being torn down, when blocks go straight to the heap.
    struct Cache {
        std::array<void*, 2 * kMagazine> blocks;
        size_t count = 0;
        ~Cache() {
            spill(*this, count);
            torn() = true;
        }
        static bool& torn() noexcept {
            thread_local bool value = false;
            return value;
        }
        static Cache* current() noexcept {
            if (torn()) return nullptr;
            thread_local Cache cache;
            return &cache;
        }
    };

    struct Depot {
        Depot() { magazines.reserve(kDepotMagazines); }
        std::mutex mutex;
        std::vector<Magazine> magazines;  // reserved in full: adding one never allocates
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

    static void release(void* block) noexcept {
        KESTLY_UNPOISON_BLOCK(block, Size);
        if constexpr (kOverAligned) return ::operator delete(block, std::align_val_t(Alignment));
        ::operator delete(block);
    }

    static void refill(Cache& cache) {
        Depot& shared = depot();
        Magazine magazine;
        {
            std::lock_guard lock(shared.mutex);
            if (shared.magazines.empty()) return;
            magazine = std::move(shared.magazines.back());
            shared.magazines.pop_back();
        }
        for (void* block : magazine) cache.blocks[cache.count++] = block;
    }

    // Moves the last `count` blocks of the cache to the depot, or to the heap when the depot
    // is full or there is no memory for a magazine.
    static void spill(Cache& cache, size_t count) noexcept {
        cache.count -= count;
        void** const first = cache.blocks.data() + cache.count;
        try {
            Magazine magazine(first, first + count);
            Depot& shared = depot();
            std::lock_guard lock(shared.mutex);
            if (shared.magazines.size() < kDepotMagazines) {
                shared.magazines.push_back(std::move(magazine));
                return;
            }
        } catch (...) {
        }
        std::for_each(first, first + count, release);
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
    void deallocate(T* object, size_t count) noexcept {
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
