#include <kestal_ulx/output.h>

#include <kestal_ulx/format.h>

#include "guard.hpp"

#include <atomic>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using owned_text = kestal::owned_block<char>;

// A standard stream and what stands in for it.
struct stream_sink {
    std::atomic<kestal_puts_handler_t> handler;
    const kestal_puts_handler_t built_in;
    std::atomic<int32_t> is_terminal; // -1 until looked up
    const int descriptor;
};

constinit stream_sink output{kestal_puts, kestal_puts, -1, STDOUT_FILENO};
constinit stream_sink error_output{kestal_error_puts, kestal_error_puts, -1, STDERR_FILENO};

// The log's slot begins as kestal_log_puts, which takes fewer arguments than a handler does: all are kept as one type.
using any_function = void (*)();
using short_log_puts = uint32_t (*)(const char *text);
constinit std::atomic<short_log_puts> log_slot{kestal_log_puts};

short_log_puts to_slot(kestal_log_puts_handler_t handler)
{
    return reinterpret_cast<short_log_puts>(reinterpret_cast<any_function>(handler));
}

kestal_log_puts_handler_t from_slot(short_log_puts slot)
{
    return reinterpret_cast<kestal_log_puts_handler_t>(reinterpret_cast<any_function>(slot));
}

// An entry needs the log opened under its identity: one text at a time.
constinit pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;

class log_guard {
public:
    explicit log_guard(const char *identity)
    {
        pthread_mutex_lock(&log_mutex);
        openlog(identity, LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
    }
    ~log_guard()
    {
        closelog();
        pthread_mutex_unlock(&log_mutex);
    }
    log_guard(const log_guard &) = delete;
    log_guard &operator=(const log_guard &) = delete;
};

bool is_terminal(stream_sink &sink)
{
    int32_t known = sink.is_terminal.load(std::memory_order_relaxed);
    if (known < 0) {
        const int saved = errno;
        known = isatty(sink.descriptor) == 1 ? 1 : 0;
        errno = saved;
        sink.is_terminal.store(known, std::memory_order_relaxed);
    }
    return known == 1;
}

int32_t put(stream_sink &sink, FILE *stream, const char *text)
{
    const kestal_puts_handler_t handler = sink.handler.load(std::memory_order_acquire);
    if (handler != nullptr && handler != sink.built_in)
        return handler(text);
    const bool keeps_escapes = is_terminal(sink);
    if (text == nullptr) {
        fflush(stream);
        return 0;
    }
    if (keeps_escapes)
        return fputs(text, stream);
    const owned_text copy(kestal_strdup_tag(text, "kestal_puts", __LINE__), "kestal_puts");
    return copy ? fputs(kestal_strip_escape_sequence(copy.get()), stream) : 0;
}

int32_t set_handler(stream_sink &sink, kestal_puts_handler_t handler, kestal_puts_handler_t *previous)
{
    const kestal_puts_handler_t old = sink.handler.exchange(handler, std::memory_order_acq_rel);
    if (previous != nullptr)
        *previous = old;
    return 0;
}

void log_line(const char *text, size_t length, const char *name, uint64_t line)
{
    char *copy = static_cast<char *>(malloc(length + 1));
    if (copy == nullptr)
        return;
    memcpy(copy, text, length);
    copy[length] = '\0';
    kestal_strip_escape_sequence(copy);
    if (line != 0)
        syslog(LOG_INFO, "%s [%s:%llu]", copy, name == nullptr ? "" : name, static_cast<unsigned long long>(line));
    else
        syslog(LOG_INFO, "%s", copy);
    free(copy);
}

// strerror_r returns the text in some C libraries, and in others whether it is in the buffer.
[[maybe_unused]] const char *text_of_error(const char *text, const char *)
{
    return text;
}

[[maybe_unused]] const char *text_of_error(int, const char *buffer)
{
    return buffer;
}

} // namespace

int32_t kestal_puts(const char *text)
{
    return put(output, stdout, text);
}

int32_t kestal_error_puts(const char *text)
{
    return put(error_output, stderr, text);
}

uint32_t kestal_log_puts_tag(const char *text, const char *name, uint64_t line)
{
    const short_log_puts slot = log_slot.load(std::memory_order_acquire);
    if (slot != nullptr && slot != kestal_log_puts && slot != to_slot(kestal_log_puts_tag))
        return from_slot(slot)(text, name, line);
    if (text == nullptr)
        return 0;

    const log_guard opened(name == nullptr ? "KESTAL" : name);
    const char *rest = text;
    while (*rest != '\0') {
        const size_t length = strcspn(rest, "\r\n");
        if (length > 0)
            log_line(rest, length, name, line);
        rest += length;
        rest += strspn(rest, "\r\n");
    }
    return static_cast<uint32_t>(rest - text);
}

uint32_t kestal_log_puts(const char *text)
{
    return kestal_log_puts_tag(text, nullptr, 0);
}

int32_t kestal_quiet_puts(const char *)
{
    return 0;
}

int32_t kestal_set_puts_handler(kestal_puts_handler_t handler, kestal_puts_handler_t *previous)
{
    return set_handler(output, handler, previous);
}

int32_t kestal_set_error_puts_handler(kestal_puts_handler_t handler, kestal_puts_handler_t *previous)
{
    return set_handler(error_output, handler, previous);
}

int32_t kestal_set_log_puts_handler(kestal_log_puts_handler_t handler, kestal_log_puts_handler_t *previous)
{
    const short_log_puts old = log_slot.exchange(to_slot(handler), std::memory_order_acq_rel);
    if (previous != nullptr)
        *previous = from_slot(old);
    return 0;
}

int32_t kestal_vprintf(const char *format, va_list list)
{
    const owned_text text(kestal_alloc_vsprintf(format, list), __func__);
    return text ? kestal_puts(text.get()) : 0;
}

int32_t kestal_printf(const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int32_t result = kestal_vprintf(format, list);
    va_end(list);
    return result;
}

int32_t kestal_error_vprintf(const char *format, va_list list)
{
    const owned_text text(kestal_alloc_vsprintf(format, list), __func__);
    return text ? kestal_error_puts(text.get()) : 0;
}

int32_t kestal_error_printf(const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int32_t result = kestal_error_vprintf(format, list);
    va_end(list);
    return result;
}

uint32_t kestal_log_vprintf(const char *format, va_list list)
{
    const owned_text text(kestal_alloc_vsprintf(format, list), __func__);
    return text ? kestal_log_puts(text.get()) : 0;
}

uint32_t kestal_log_printf(const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const uint32_t result = kestal_log_vprintf(format, list);
    va_end(list);
    return result;
}

void kestal_perror_tag(const char *message, const char *name, uint64_t line)
{
    const int number = errno;
    char buffer[128] = "";
    const char *text = text_of_error(strerror_r(number, buffer, sizeof buffer), buffer);
    if (text[0] == '\0') {
        kestal_snprintf(buffer, sizeof buffer, "Unknown error %d", number);
        text = buffer;
    }
    kestal_error_printf("%s:%lu [ERROR:errno=\033[1;37m%d\033[0m] \033[1;31m%s\033[0m (\"\033[1;37m%s\033[0m\")\n",
                        name == nullptr ? "?" : name, line, number, message == nullptr ? "" : message, text);
    errno = number;
}

char *kestal_strip_escape_sequence(char *text)
{
    if (text == nullptr)
        return nullptr;
    bool in_sequence = false;
    char *kept = text;
    for (const char *next = text; *next != '\0'; ++next) {
        const char character = *next;
        if (in_sequence)
            in_sequence = (character >= '0' && character <= '9') || character == '[' || character == ';';
        else if (character == '\033')
            in_sequence = true;
        else
            *kept++ = character;
    }
    *kept = '\0';
    return text;
}
