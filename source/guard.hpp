// Owners that release on every path: what modules use inside instead of clean-up ladders.
#pragma once

#include <kestal_ulx/memory.h>
#include <kestal_ulx/short_lock.h>

#include <unistd.h>
#include <utility>

namespace kestal {

// Holds a short lock for a scope.
class short_lock_guard {
public:
    explicit short_lock_guard(kestal_short_lock_t &lock) : lock_(lock) { kestal_short_lock(&lock_); }
    ~short_lock_guard() { kestal_short_unlock(&lock_); }
    short_lock_guard(const short_lock_guard &) = delete;
    short_lock_guard &operator=(const short_lock_guard &) = delete;

private:
    kestal_short_lock_t &lock_;
};

// Owns one tagged block; releases it under the tag name given.
template <typename T>
class owned_block {
public:
    explicit owned_block(void *block, const char *tag) : block_(static_cast<T *>(block)), tag_(tag) {}
    ~owned_block() { kestal_check_free_tag(block_, tag_, 0); }
    owned_block(const owned_block &) = delete;
    owned_block &operator=(const owned_block &) = delete;

    explicit operator bool() const { return block_ != nullptr; }
    T *get() const { return block_; }
    T *operator->() const { return block_; }
    T &operator[](size_t index) const { return block_[index]; }
    T *release() { return std::exchange(block_, nullptr); }

private:
    T *block_;
    const char *tag_;
};

// Owns one file descriptor; -1 owns nothing.
class owned_descriptor {
public:
    explicit owned_descriptor(int descriptor) : descriptor_(descriptor) {}
    ~owned_descriptor()
    {
        if (descriptor_ >= 0)
            close(descriptor_);
    }
    owned_descriptor(const owned_descriptor &) = delete;
    owned_descriptor &operator=(const owned_descriptor &) = delete;

    int get() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

} // namespace kestal
