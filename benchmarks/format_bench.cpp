// Formatting beside the C runtime and GLib: into a buffer of the caller's, and into a new block.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <glib.h>
#include <string>

namespace {

template <typename Once>
void add(const std::string &name, Once once)
{
    benchmark::RegisterBenchmark(name.c_str(), [once](benchmark::State &state) {
        char buffer[256];
        for (auto _ : state) {
            once(buffer);
            benchmark::DoNotOptimize(buffer);
            benchmark::ClobberMemory();
        }
    });
}

// One format and its arguments through each formatter.
template <typename... Arguments>
void add_row(const std::string &row, const char *format, Arguments... arguments)
{
    add(row + ":kestal", [=](char *buffer) { kestal_snprintf(buffer, 256, format, arguments...); });
    add(row + ":glibc", [=](char *buffer) { snprintf(buffer, 256, format, arguments...); });
    add(row + ":glib", [=](char *buffer) { g_snprintf(buffer, 256, format, arguments...); });

    add(row + " allocated:kestal", [=](char *) { kestal_free(kestal_alloc_sprintf(format, arguments...)); });
    add(row + " allocated:glibc", [=](char *) {
        char *text = nullptr;
        if (asprintf(&text, format, arguments...) >= 0)
            free(text);
    });
    add(row + " allocated:glib", [=](char *) { g_free(g_strdup_printf(format, arguments...)); });
}

const bool rows_added = [] {
    add_row("format %d", "%d", -123456);
    add_row("format %08X", "%08X", 0xBEEF1234u);
    add_row("format %s", "%s", "a text of some length");
    add_row("format %.3f", "%.3f", 3.14159);
    add_row("format log line", "%s [%s:%lu] session %d from %s: %u bytes in %.3f s, status %08X", "2026-11-21 08:42:00",
            "kestal_ftpd", 1234ul, 17, "192.168.1.20", 1048576u, 0.734, 0xC0FFEEu);
    return true;
}();

} // namespace
