// Runs on a machine with a real frame buffer: what a context says of it, shows on it, and leaves of it.
#include <kestal_ulx.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

int failures = 0;

void check(bool holds, const char *what)
{
    printf("%s: %s\n", holds ? "ok" : "FAILED", what);
    failures += holds ? 0 : 1;
}

uint32_t open_fb(const char *name, const char *value)
{
    const uint32_t id = kestal_new_ctx();
    kestal_ctx_set_option_string(id, 1, name, value);
    if (kestal_open_ctx(id, "application/ulx_fb") == 0)
        return id;
    kestal_destroy_ctx(id);
    return KESTAL_INVALID_ID;
}

struct palette {
    uint16_t channels[3][256] = {};

    bool apply(int descriptor, unsigned long code)
    {
        fb_cmap request = {
            .start = 0, .len = 256, .red = channels[0], .green = channels[1], .blue = channels[2], .transp = nullptr};
        return ioctl(descriptor, code, &request) == 0;
    }
};

void check_palette(int device)
{
    palette before, other, after;
    check(before.apply(device, FBIOGETCMAP), "the colour map can be read");
    const uint32_t id = open_fb("src", "/dev/fb0");
    memset(other.channels, 0x40, sizeof(other.channels));
    check(other.apply(device, FBIOPUTCMAP), "the colour map can be changed");
    kestal_destroy_ctx(id);
    after.apply(device, FBIOGETCMAP);
    check(memcmp(&before, &after, sizeof(after)) == 0, "the colour map is put back at close");
}

// A pixel drawn into the map is what the device's own file then holds.
void check_memory(const kestal_ctx_fbinfo_t &info)
{
    const uint32_t bytes = kestal_fbmap_get_bits_per_pixel(info.m_root) / 8;
    const auto x = static_cast<int32_t>(kestal_fbmap_get_resx(info.m_root) - 1);
    const auto y = static_cast<int32_t>(kestal_fbmap_get_resy(info.m_root) - 1);
    kestal_fbmap_draw_pixel(info.m_root, 0x00A55AC3, x, y);
    uint8_t pixel[4] = {};
    const uint64_t offset =
        static_cast<uint64_t>(y) * kestal_fbmap_get_line_length(info.m_root) + static_cast<uint64_t>(x) * bytes;
    const int device = open("/dev/fb0", O_RDONLY);
    const bool is_read = pread(device, pixel, bytes, static_cast<off_t>(offset)) == static_cast<ssize_t>(bytes);
    close(device);
    const uint8_t wanted[4] = {0xC3, 0x5A, 0xA5, 0};
    check(is_read && memcmp(pixel, wanted, bytes) == 0, "a pixel drawn is in the device's memory");
}

} // namespace

int main()
{
    struct stat status = {};
    check(stat("/dev/fb0", &status) == 0 && major(status.st_rdev) == 29, "/dev/fb0 has major number 29");
    check(open_fb("src", "/dev/null|/dev/console") == KESTAL_INVALID_ID, "other devices are refused");

    const uint64_t blocks = kestal_get_alloc_count();
    const uint32_t id = open_fb("src", "/dev/fb|/dev/null|/dev/fb0");
    kestal_ctx_fbinfo_t info = {};
    check(kestal_ctx_get_fbinfo(id, &info) == 0, "the list's first frame buffer is opened");
    if (info.m_root == nullptr)
        return 1;
    check(strcmp(info.m_device, "/dev/fb0") == 0, "it is /dev/fb0");
    check_memory(info);
    kestal_destroy_ctx(id);

    const int device = open("/dev/fb0", O_RDWR);
    char number[16];
    snprintf(number, sizeof(number), "%d", device);
    const uint32_t given = open_fb("fd", number);
    check(kestal_ctx_get_fbinfo(given, &info) == 0 && info.m_descriptor == device, "a given descriptor is taken");
    kestal_destroy_ctx(given);
    fb_var_screeninfo variable = {};
    check(ioctl(device, FBIOGET_VSCREENINFO, &variable) == 0, "a given descriptor stays open");
    if (variable.bits_per_pixel == 8)
        check_palette(device);
    close(device);
    check(kestal_get_alloc_count() == blocks, "no block is left behind");
    return failures == 0 ? 0 : 1;
}
