#include <kestal_ulx/event_buffer.h>

#include "event.hpp"

#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>

#include <algorithm>
#include <string.h>

namespace {

using kestal::is_usable;

constexpr uint32_t input = KESTAL_EVENT_BUFFER_INPUT;
constexpr uint32_t output = KESTAL_EVENT_BUFFER_OUTPUT;
constexpr uint32_t directions_in_order[] = {input, output};

kestal_buffer_t *&buffer_of(kestal_event_t &event, uint32_t direction)
{
    return direction == input ? event.m_input_buffer : event.m_output_buffer;
}

// The buffer of the first direction named, or null.
kestal_buffer_t *chosen_buffer(kestal_event_t &event, uint32_t direction)
{
    if ((direction & input) != 0)
        return event.m_input_buffer;
    return (direction & output) != 0 ? event.m_output_buffer : nullptr;
}

// Has the base watch the descriptor as the buffers want it now.
void renew_interest(kestal_event_t &event)
{
    if (event.m_base == nullptr)
        return;
    const kestal::base_guard guard(*event.m_base);
    if (kestal::has_flags(event, KESTAL_EVENT_REGISTERED) && event.m_descriptor >= 0)
        kestal::watch_event(event);
}

bool make_buffer(kestal_event_t &event, uint32_t direction)
{
    kestal_buffer_t *&buffer = buffer_of(event, direction);
    if (buffer == nullptr)
        buffer = kestal_open_buffer_ex(0);
    return buffer != nullptr;
}

int32_t as_result(uint64_t bytes)
{
    return static_cast<int32_t>(std::min(bytes, uint64_t{INT32_MAX}));
}

// Has push(buffer) append to the buffer of each direction, and adds up what it says it did.
template <typename Push>
int32_t push_each(kestal_event_t &event, uint32_t directions, Push push)
{
    uint64_t sum = 0;
    for (const uint32_t direction : directions_in_order) {
        if ((directions & direction) == 0)
            continue;
        if (!make_buffer(event, direction))
            return -1;
        sum += push(buffer_of(event, direction));
        renew_interest(event);
    }
    return as_result(sum);
}

} // namespace

int32_t kestal_event_enable_buffer(kestal_event_t *event, uint32_t directions)
{
    if (!is_usable(event, __func__, false))
        return -1;
    bool is_done = true;
    for (const uint32_t direction : directions_in_order)
        if ((directions & direction) != 0 && !make_buffer(*event, direction))
            is_done = false;
    renew_interest(*event);
    return is_done ? 0 : -1;
}

int32_t kestal_event_disable_buffer(kestal_event_t *event, uint32_t directions)
{
    if (!is_usable(event, __func__, false))
        return -1;
    for (const uint32_t direction : directions_in_order)
        if ((directions & direction) != 0)
            buffer_of(*event, direction) = kestal_close_buffer(buffer_of(*event, direction));
    renew_interest(*event);
    return 0;
}

int32_t kestal_event_set_buffer_watermark(kestal_event_t *event, uint32_t directions, uint64_t low, uint64_t high)
{
    if (!is_usable(event, __func__, false))
        return -1;
    if ((directions & input) != 0)
        event->m_input_high_watermark = high;
    if ((directions & output) != 0)
        event->m_output_low_watermark = low;
    renew_interest(*event);
    return 0;
}

uint64_t kestal_event_get_buffer_size(kestal_event_t *event, uint32_t directions)
{
    if (!is_usable(event, __func__, false))
        return 0;
    uint64_t size = 0;
    for (const uint32_t direction : directions_in_order)
        if ((directions & direction) != 0)
            size += kestal_get_buffer_size(buffer_of(*event, direction));
    return size;
}

int32_t kestal_event_push_buffer(kestal_event_t *event, uint32_t directions, const void *data, uint64_t size)
{
    if (!is_usable(event, __func__, false))
        return -1;
    return push_each(*event, directions,
                     [=](kestal_buffer_t *buffer) { return kestal_push_buffer_ex(buffer, data, size, 0); });
}

int32_t kestal_event_push_puts(kestal_event_t *event, uint32_t directions, const char *text)
{
    if (!is_usable(event, __func__, false))
        return -1;
    return push_each(*event, directions, [=](kestal_buffer_t *buffer) { return kestal_push_puts_ex(buffer, text, 0); });
}

int32_t kestal_event_push_vprintf(kestal_event_t *event, uint32_t directions, const char *format, va_list arguments)
{
    if (!is_usable(event, __func__, false))
        return -1;
    return push_each(*event, directions, [&](kestal_buffer_t *buffer) {
        va_list copy;
        va_copy(copy, arguments);
        char *text = kestal_alloc_vsprintf(format, copy);
        va_end(copy);
        const uint64_t queued = kestal_push_puts_ex(buffer, text, KESTAL_BUFFER_ADOPT);
        if (queued == 0)
            kestal_check_free_tag(text, "kestal_event_push_vprintf", __LINE__); // not adopted
        return queued;
    });
}

int32_t kestal_event_push_printf(kestal_event_t *event, uint32_t directions, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int32_t queued = kestal_event_push_vprintf(event, directions, format, arguments);
    va_end(arguments);
    return queued;
}

int32_t kestal_event_pop_buffer(kestal_event_t *event, uint32_t direction, void *destination, uint64_t size)
{
    if (!is_usable(event, __func__, false))
        return -1;
    kestal_buffer_t *buffer = chosen_buffer(*event, direction);
    if (buffer == nullptr)
        return -1;
    const uint64_t taken = kestal_pop_buffer_ex(buffer, destination, std::min(size, uint64_t{INT32_MAX}), 0);
    renew_interest(*event);
    return as_result(taken);
}

int32_t kestal_event_peek_buffer(kestal_event_t *event, uint32_t direction, void *destination, uint64_t size,
                                 uint64_t offset)
{
    if (!is_usable(event, __func__, false))
        return -1;
    kestal_buffer_t *buffer = chosen_buffer(*event, direction);
    if (buffer == nullptr)
        return -1;
    return as_result(kestal_peek_buffer_ex(buffer, destination, std::min(size, uint64_t{INT32_MAX}), offset, 0));
}
