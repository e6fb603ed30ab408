#pragma once

#include <memory>
#include <mutex>

/// A shared pointer that threads read and replace as a whole, so no reader ever sees a
/// half-written reference. It stands in for std::atomic<std::shared_ptr<T>>, whose lock-bit
/// implementation in libstdc++ 12 ThreadSanitizer cannot follow: a plain mutex held for the
/// copy of one pointer costs as little and is checked like any other lock.
template <class T>
class DCIAtomicSharedPtr {
public:
    DCIAtomicSharedPtr() = default;
    explicit DCIAtomicSharedPtr(std::shared_ptr<T> pointer) : pointer_(std::move(pointer)) {}
    DCIAtomicSharedPtr(const DCIAtomicSharedPtr&) = delete;
    DCIAtomicSharedPtr& operator=(const DCIAtomicSharedPtr&) = delete;

    std::shared_ptr<T> load() const {
        std::lock_guard lock(mutex_);
        return pointer_;
    }

    void store(std::shared_ptr<T> pointer) {
        // The old object is released outside the lock: its destructor may take other locks.
        std::shared_ptr<T> old;
        std::lock_guard lock(mutex_);
        old.swap(pointer_);
        pointer_ = std::move(pointer);
    }

private:
    mutable std::mutex mutex_;
    std::shared_ptr<T> pointer_;
};
