// Owner of one stream context, for modules that open, read and drop one within a call.
#pragma once

#include <kestal_ulx/interface.h>

#include <errno.h>
#include <utility>

namespace kestal {

class owned_ctx {
public:
    explicit owned_ctx(uint32_t id) : id_(id) {}
    ~owned_ctx()
    {
        const int cause = errno; // of the failure that the caller is about to return
        kestal_destroy_ctx(id_);
        errno = cause;
    }
    owned_ctx(const owned_ctx &) = delete;
    owned_ctx &operator=(const owned_ctx &) = delete;

    explicit operator bool() const { return id_ != KESTAL_INVALID_ID; }
    uint32_t get() const { return id_; }
    uint32_t release() { return std::exchange(id_, KESTAL_INVALID_ID); }

private:
    uint32_t id_;
};

} // namespace kestal
