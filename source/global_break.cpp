#include <kestal_ulx/global_break.h>

#include <atomic>

namespace {

constinit std::atomic<uint32_t> break_flag{0};

} // namespace

int32_t kestal_set_global_break(void)
{
    break_flag.store(1, std::memory_order_relaxed);
    return 0;
}

int32_t kestal_clear_global_break(void)
{
    break_flag.store(0, std::memory_order_relaxed);
    return 0;
}

uint32_t kestal_get_global_break(void)
{
    return break_flag.load(std::memory_order_relaxed);
}
