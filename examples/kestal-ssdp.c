/*
 * kestal-ssdp [OPTION...]
 *
 * Listens for SSDP discovery messages (UPnP devices that announce themselves, programs that search for them) on every
 * network interface, also on those that come up later, and prints each with its sender. Sends nothing. Ends on SIGINT,
 * SIGTERM or SIGQUIT, and with --keys on ESC or q. Status 0, 1 when no socket could be opened, 2 for wrong usage.
 */
#include <kestal_ulx.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define ARRAY_SIZE(array) (sizeof(array) / sizeof *(array))

static const char *const help =
    "usage: kestal-ssdp [OPTION...]\n"
    "Print SSDP discovery messages as they arrive. Ends on SIGINT, SIGTERM or SIGQUIT.\n\n"
    "  -4, -6               only IPv4, only IPv6\n"
    "  --port PORT          listen on this port instead of 1900; may be given several times\n"
    "  --group ADDRESS      join this group instead of 239.255.255.250, ff02::c and ff05::c;\n"
    "                       may be given several times, for IPv4 and IPv6\n"
    "  --interval SECONDS   look for new network interfaces so often (300)\n"
    "  --keys               end also when ESC or q is pressed on the terminal\n"
    "  --help               print this text\n";

static const char *const port_options[] = {"multicast_ipv4_port", "multicast_ipv6_port"};
static const char *const group_options[] = {"multicast_ipv4_address", "multicast_ipv6_address"};

/* Values of the user's own take the place of those that the listener begins with. */
typedef struct {
    kestal_ssdp_t *ssdp;
    int32_t has_ports;
    int32_t has_groups;
} settings_t;

static void clear_once(settings_t *settings, int32_t *is_cleared, const char *const *names)
{
    for (int i = 0; i < 2 && !*is_cleared; ++i)
        kestal_ssdp_remove_option_by_name(settings->ssdp, 1, names[i]);
    *is_cleared = 1;
}

static int32_t add(settings_t *settings, const char *name, const char *value)
{
    return kestal_ssdp_set_option_string(settings->ssdp, KESTAL_VALUE_ADD_IF_ABSENT, 1, name, value);
}

static int32_t replace(settings_t *settings, const char *name, int32_t value)
{
    return kestal_ssdp_set_option_int(settings->ssdp, KESTAL_VALUE_REPLACE_BY_NAME, 1, name, value);
}

/* A decimal number from 1 to `most`, or 0. */
static int32_t number_of(const char *text, long most)
{
    char *end = NULL;
    const long number = strtol(text, &end, 10);
    return *text != '\0' && *end == '\0' && number >= 1 && number <= most ? (int32_t)number : 0;
}

static int32_t add_port(settings_t *settings, const char *port)
{
    if (number_of(port, 65535) == 0)
        return -1;
    clear_once(settings, &settings->has_ports, port_options);
    return add(settings, port_options[0], port) != 0 || add(settings, port_options[1], port) != 0 ? -1 : 0;
}

static int32_t add_group(settings_t *settings, const char *group)
{
    struct sockaddr_storage address;
    if ((kestal_inet_ptos(AF_INET, group, 0, &address, sizeof address) != 0 &&
         kestal_inet_ptos(AF_INET6, group, 0, &address, sizeof address) != 0) ||
        kestal_is_multicast(&address) == 0)
        return -1;
    clear_once(settings, &settings->has_groups, group_options);
    return add(settings, group_options[address.ss_family == AF_INET ? 0 : 1], group);
}

static int32_t set_interval(settings_t *settings, const char *text)
{
    const int32_t seconds = number_of(text, INT32_MAX / 1000);
    return seconds == 0 ? -1 : replace(settings, "network_interface_scan_interval", seconds * 1000);
}

static int32_t read_options(settings_t *settings, int count, char **words)
{
    static const struct {
        const char *name;
        int32_t (*set)(settings_t *settings, const char *value);
    } with_value[] = {{"--port", add_port}, {"--group", add_group}, {"--interval", set_interval}};
    int32_t is_without[2] = {0, 0};
    for (int i = 1; i < count; ++i) {
        size_t known = 0;
        while (known < ARRAY_SIZE(with_value) && strcmp(words[i], with_value[known].name) != 0)
            ++known;
        if (known < ARRAY_SIZE(with_value)) {
            if (++i == count || with_value[known].set(settings, words[i]) != 0)
                return -1;
        } else if (strcmp(words[i], "--keys") == 0)
            replace(settings, "stop_vt_event", 1);
        else if (strcmp(words[i], "-4") == 0)
            is_without[1] = 1;
        else if (strcmp(words[i], "-6") == 0)
            is_without[0] = 1;
        else
            return -1;
    }
    for (int i = 0; i < 2; ++i)
        if (is_without[i])
            kestal_ssdp_remove_option_by_name(settings->ssdp, 1, port_options[i]);
    return is_without[0] && is_without[1] ? -1 : 0;
}

int main(int count, char **words)
{
    if (count == 2 && strcmp(words[1], "--help") == 0)
        return fputs(help, stdout) < 0 || fflush(stdout) != 0;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    settings_t settings = {.ssdp = kestal_open_ssdp()};
    if (settings.ssdp == NULL)
        return 1;
    int status = 2;
    if (read_options(&settings, count, words) == 0) {
        replace(&settings, "verbose", 1);
        replace(&settings, "stop_signal_event", 1);
        status = kestal_ssdp_start(settings.ssdp) == 0 ? 0 : 1;
    } else {
        fputs(help, stderr);
    }
    kestal_close_ssdp(settings.ssdp);
    return status;
}
