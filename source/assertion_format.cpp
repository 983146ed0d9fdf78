#include <kestal_ulx/assertion_format.h>

#include "guard.hpp"

#include <kestal_ulx/assertion.h>
#include <kestal_ulx/format.h>

void kestal_vassert_fail_tag(const char *file, const char *function, uint64_t line, const char *format, va_list list)
{
    const kestal::owned_block<char> message(kestal_alloc_vsprintf(format, list), __func__);
    kestal_assert_fail_tag(file, function, line, message ? message.get() : format);
}

void kestal_assertf_fail_tag(const char *file, const char *function, uint64_t line, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    kestal_vassert_fail_tag(file, function, line, format, list);
    va_end(list);
}
