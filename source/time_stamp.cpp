#include <kestal_ulx/time_stamp.h>

#include <stdio.h>
#include <time.h>

namespace {

constexpr char days[] = "SunMonTueWedThuFriSat";
constexpr char months[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr const char *styles[] = {"%e %H:%M:%S %Y", "%Y-%m-%d %H:%M:%S", "%Y%m%d%H%M%S"};

timespec monotonic_now()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

} // namespace

uint64_t kestal_time_stamp_msec(void)
{
    const timespec now = monotonic_now();
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

uint64_t kestal_time_stamp_nsec(void)
{
    const timespec now = monotonic_now();
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

char *kestal_asctime(char *buffer, uint64_t size, int32_t style, int64_t when)
{
    if (buffer == nullptr || size == 0)
        return nullptr;
    buffer[0] = '\0';
    if (style < 0 || style >= static_cast<int32_t>(sizeof styles / sizeof styles[0]))
        return nullptr;

    const time_t seconds = when < 0 ? time(nullptr) : static_cast<time_t>(when);
    tm local{};
    if (localtime_r(&seconds, &local) == nullptr)
        return nullptr;
    const char *format = styles[style];
    char named[32];
    if (style == 0) { // strftime would take the names of the locale
        snprintf(named, sizeof named, "%.3s %.3s %s", days + 3 * local.tm_wday, months + 3 * local.tm_mon, format);
        format = named;
    }
    if (strftime(buffer, static_cast<size_t>(size), format, &local) == 0) {
        buffer[0] = '\0';
        return nullptr;
    }
    return buffer;
}
