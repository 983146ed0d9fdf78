#include "ssdp.hpp"

#include <kestal_ulx/format.h>

namespace {

constexpr char escape = 0x1B;

void trace_key(kestal_ssdp_t &ssdp, const char *code, int32_t length)
{
    char line[64 + 24 * KESTAL_TERMINAL_KEY_SIZE];
    uint64_t filled = kestal_snprintf(line, sizeof line, "VT CODE=\"");
    for (int32_t i = 0; i < length; ++i) {
        const auto byte = static_cast<uint8_t>(code[i]);
        const char *format = byte == escape                 ? "\033[1;33mESC\033[0m"
                             : byte >= 0x20 && byte <= 0x7E ? "\033[1;32m%c\033[0m"
                                                            : "\033[1;37m(%02XH)\033[0m";
        filled += kestal_snprintf(line + filled, sizeof line - filled, format, uint32_t{byte});
    }
    kestal::trace(ssdp, "%s\"\n", line);
}

bool is_to_end(const char *code, int32_t length)
{
    return length == 1 && (code[0] == escape || code[0] == 'q');
}

void handle_keys(kestal_event_t *event, int32_t, uint32_t what, void *context)
{
    kestal_ssdp_t &ssdp = *static_cast<kestal_ssdp_t *>(context);
    if ((what & KESTAL_EVENT_UNASSIGNED) != 0)
        ssdp.m_keys = kestal_close_terminal_key(ssdp.m_keys);
    if ((what & KESTAL_EVENT_READ) == 0)
        return;
    char code[KESTAL_TERMINAL_KEY_SIZE];
    int32_t length = 0;
    while ((length = kestal_read_terminal_key(ssdp.m_keys, code, sizeof code, 0)) > 0) {
        trace_key(ssdp, code, length);
        if (is_to_end(code, length))
            kestal_event_base_exit_loop(ssdp.m_event_base, 0);
    }
    if (length < 0) // the terminal is gone, and would be ready for ever
        kestal_unassign_event(event);
}

} // namespace

void kestal::open_ssdp_keys(kestal_ssdp_t &ssdp)
{
    ssdp.m_keys = kestal_open_terminal_key(nullptr);
    if (ssdp.m_keys != nullptr &&
        kestal_event_base_once(ssdp.m_event_base, kestal_get_terminal_key_descriptor(ssdp.m_keys),
                               KESTAL_EVENT_READ | KESTAL_EVENT_PERSIST, handle_keys, &ssdp, -1) != 0)
        ssdp.m_keys = kestal_close_terminal_key(ssdp.m_keys);
}
