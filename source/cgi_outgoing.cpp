#include <kestal_ulx/cgi.h>

#include "cgi.hpp"
#include "guard.hpp"

#include <kestal_ulx/file.h>
#include <kestal_ulx/format.h>
#include <kestal_ulx/output.h>
#include <kestal_ulx/select.h>
#include <kestal_ulx/text.h>
#include <kestal_ulx/version.h>

#include <errno.h>
#include <initializer_list>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

namespace {

using kestal::owned_descriptor;

constexpr int32_t read_timeout = 60000;     // ms
constexpr uint32_t most_interruptions = 15; // in one file
constexpr char days[] = "SunMonTueWedThuFriSat";
constexpr char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";

// The headers that are added when the application did not set them.
struct automatic_headers {
    bool server = true;
    bool content_length = true;
    bool date = true;
};

// Standard output takes bytes as they are: the sink would strip escape sequences.
bool write_bytes(FILE *stream, const void *data, size_t size)
{
    const auto *next = static_cast<const uint8_t *>(data);
    while (size > 0) {
        const size_t written = fwrite(next, 1, size, stream);
        if (written == 0)
            return false;
        next += written;
        size -= written;
    }
    return true;
}

bool write_texts(std::initializer_list<const char *> texts)
{
    for (const char *text : texts)
        if (!write_bytes(stdout, text, strlen(text)))
            return false;
    return true;
}

bool flush(FILE *stream)
{
    return fflush(stream) == 0;
}

bool write_given(const kestal_cgi_t &cgi, automatic_headers &missing)
{
    for (const auto *header = cgi.m_response_headers; header != nullptr; header = header->m_next) {
        if (!write_texts({header->m_name, ": ", header->m_value, cgi.m_line_end}))
            return false;
        const auto is_not = [header](const char *name) {
            return kestal_compare_ignore_case(header->m_name, name) != 0;
        };
        missing.server = missing.server && is_not("Server");
        missing.content_length = missing.content_length && is_not("Content-Length");
        missing.date = missing.date && is_not("Date");
    }
    return true;
}

bool write_content_length(const kestal_cgi_t &cgi, uint64_t size)
{
    char number[32];
    kestal_snprintf(number, sizeof number, "%lu", size);
    return write_texts({"Content-Length: ", number, cgi.m_line_end});
}

// The date without strftime's names, which are those of the locale.
bool write_date(const kestal_cgi_t &cgi)
{
    const time_t now = time(nullptr);
    tm utc{};
    char date[64];
    if (gmtime_r(&now, &utc) == nullptr)
        return true;
    kestal_snprintf(date, sizeof date, "%.3s, %d %.3s %d %02d:%02d:%02d GMT", days + 3 * utc.tm_wday, utc.tm_mday,
                    months + 3 * utc.tm_mon, utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return write_texts({"Date: ", date, cgi.m_line_end});
}

bool write_head(const kestal_cgi_t &cgi)
{
    automatic_headers missing;
    if (!write_given(cgi, missing))
        return false;
    if (cgi.m_response_headers == nullptr || cgi.m_outgoing_handler != nullptr)
        return true;
    // The server's line has a blank before its end: callers rely on it.
    return (!missing.server ||
            write_texts({"Server: kestal_ulx/", kestal_get_ulx_version_string(), " ", cgi.m_line_end})) &&
           (!missing.content_length || write_content_length(cgi, kestal_get_buffer_size(cgi.m_output))) &&
           (!missing.date || write_date(cgi)) && write_texts({cgi.m_line_end});
}

bool write_buffer(kestal_cgi_t &cgi, kestal_buffer_t *buffer, FILE *stream)
{
    while (const uint64_t size = kestal_pop_buffer_ex(buffer, cgi.m_block, sizeof cgi.m_block, 0))
        if (!write_bytes(stream, cgi.m_block, static_cast<size_t>(size)))
            return false;
    return flush(stream);
}

// One read. A signal ends the wait, with EINTR; that the time ran out is ETIMEDOUT.
int64_t read_block(kestal_cgi_t &cgi, int descriptor)
{
    const int32_t ready = kestal_single_select(descriptor, KESTAL_SELECT_READ, read_timeout);
    if (ready == 0)
        errno = ETIMEDOUT;
    return ready > 0 ? kestal_read_file(descriptor, cgi.m_block, sizeof cgi.m_block, -1) : -1;
}

int32_t send_file(kestal_cgi_t &cgi, int descriptor)
{
    for (uint32_t interruptions = 0;;) {
        const int64_t count = read_block(cgi, descriptor);
        if (count == 0)
            return flush(stdout) ? 0 : -1;
        if (count > 0) {
            if (!write_bytes(stdout, cgi.m_block, static_cast<size_t>(count)))
                return -1;
        } else if (errno == EINTR && interruptions < most_interruptions) {
            ++interruptions;
            sched_yield();
        } else {
            kestal_error_puts(errno == ETIMEDOUT ? "read timeout !\n" : "read error !\n");
            return -1;
        }
    }
}

} // namespace

int32_t kestal_cgi_outgoing(kestal_cgi_t *cgi)
{
    if (cgi == nullptr)
        return -1;
    const bool head_is_written = write_head(*cgi);
    if (cgi->m_outgoing_handler != nullptr) {
        const int32_t result = cgi->m_outgoing_handler(cgi);
        flush(stdout);
        return result;
    }
    const bool body_is_written = head_is_written && write_buffer(*cgi, cgi->m_output, stdout);
    write_buffer(*cgi, cgi->m_error_output, stderr);
    return body_is_written ? 0 : -1;
}

int32_t kestal_cgi_outgoing_file_handler(kestal_cgi_t *cgi)
{
    if (cgi == nullptr)
        return -1;
    if (kestal::is_empty(cgi->m_file_name)) {
        kestal_error_puts("filename not given !\n");
        return -1;
    }
    const owned_descriptor file(kestal_open_file(cgi->m_file_name, KESTAL_FILE_READ, 0));
    const int64_t size = file.get() < 0 ? -1 : kestal_get_file_size(file.get());
    if ((size >= 0 && !write_content_length(*cgi, static_cast<uint64_t>(size))) || !write_texts({cgi->m_line_end}))
        return -1;
    if (file.get() < 0) {
        kestal_error_printf("can not open file \"%s\" !\n", cgi->m_file_name);
        return -1;
    }
    return send_file(*cgi, file.get());
}
