// Runs on a machine with a real frame buffer: what a context says of it, shows on it, and leaves of it.
#include <kestal_ulx.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
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

uint32_t open_fb(const char *name, const std::string &value)
{
    const uint32_t id = kestal_new_ctx();
    kestal_ctx_set_option_string(id, 1, name, value.c_str());
    kestal_open_ctx(id, "application/ulx_fb");
    return id;
}

} // namespace

int main()
{
    struct stat status = {};
    check(stat("/dev/fb0", &status) == 0 && major(status.st_rdev) == 29, "/dev/fb0 has major number 29");
    const uint64_t blocks = kestal_get_alloc_count();
    kestal_ctx_fbinfo_t info = {};
    const uint32_t refused = open_fb("src", "/dev/null|/dev/console");
    check(kestal_ctx_get_fbinfo(refused, &info) != 0, "other devices are refused");
    kestal_destroy_ctx(refused);

    const uint32_t id = open_fb("src", "/dev/fb|/dev/null|/dev/fb0");
    check(kestal_ctx_get_fbinfo(id, &info) == 0 && strcmp(info.m_device, "/dev/fb0") == 0,
          "the list's first frame buffer is opened");
    kestal_destroy_ctx(id);

    const int device = open("/dev/fb0", O_RDWR);
    const uint32_t given = open_fb("fd", std::to_string(device));
    check(kestal_ctx_get_fbinfo(given, &info) == 0 && info.m_descriptor == device, "a given descriptor is taken");
    kestal_destroy_ctx(given);
    check(close(device) == 0, "a given descriptor stays open");
    check(kestal_get_alloc_count() == blocks, "no block is left behind");
    return failures == 0 ? 0 : 1;
}
