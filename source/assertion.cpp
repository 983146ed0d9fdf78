#include <kestal_ulx/assertion.h>

#include <kestal_ulx/time_stamp.h>

#include <atomic>
#include <stdio.h>

namespace {

constinit std::atomic<kestal_assert_handler_t> assert_handler{nullptr};

void print(const char *file, const char *function, uint64_t line, const char *message)
{
    char now[32];
    kestal_asctime(now, sizeof now, 2, -1);
    fprintf(stderr,
            "kestal [\033[1;31mASSERT\033[0m:\033[1;34m%s\033[0m:\033[1;32m%s\033[0m:\033[1;37m%llu\033[0m] "
            "<\033[1;31m%s\033[0m> %s\n",
            file, function, static_cast<unsigned long long>(line), message, now);
    fflush(stderr);
}

} // namespace

void kestal_assert_fail_tag(const char *file, const char *function, uint64_t line, const char *message)
{
    if (file == nullptr)
        file = "UNKNOWN";
    if (function == nullptr)
        function = "UNKNOWN";
    if (message == nullptr)
        message = "NO_MESSAGE";

    const kestal_assert_handler_t handler = assert_handler.load(std::memory_order_acquire);
    (handler != nullptr ? handler : print)(file, function, line, message);
}

int32_t kestal_set_assert_handler(kestal_assert_handler_t handler, kestal_assert_handler_t *previous)
{
    const kestal_assert_handler_t old = assert_handler.exchange(handler, std::memory_order_acq_rel);
    if (previous != nullptr)
        *previous = old;
    return 0;
}
