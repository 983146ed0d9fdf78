// Frame-buffer contexts over a regular file that passes for a device: what a driver would answer, the test answers.
#include "support.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <linux/fb.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

struct {
    unsigned major = 29;
    fb_fix_screeninfo fixed = {};
    fb_var_screeninfo variable = {};
    uint16_t colors[4][256] = {};
} driver;

// A regular file is the driver's device.
int as_device(int result, struct stat64 *status)
{
    if (result == 0 && S_ISREG(status->st_mode)) {
        status->st_mode = S_IFCHR | 0600;
        status->st_rdev = makedev(driver.major, 0);
    }
    return result;
}

} // namespace

extern "C" {

int __real_stat64(const char *path, struct stat64 *status);
int __real_fstat64(int descriptor, struct stat64 *status);

int __wrap_stat64(const char *path, struct stat64 *status)
{
    return as_device(__real_stat64(path, status), status);
}

int __wrap_fstat64(int descriptor, struct stat64 *status)
{
    return as_device(__real_fstat64(descriptor, status), status);
}

int __wrap_ioctl(int, unsigned long code, ...)
{
    va_list arguments;
    va_start(arguments, code);
    void *record = va_arg(arguments, void *);
    va_end(arguments);
    const auto *request = static_cast<fb_cmap *>(record);
    uint16_t *channels[] = {request->red, request->green, request->blue, request->transp};
    switch (code) {
    case FBIOGET_FSCREENINFO:
        memcpy(record, &driver.fixed, sizeof(driver.fixed));
        return 0;
    case FBIOGET_VSCREENINFO:
        memcpy(record, &driver.variable, sizeof(driver.variable));
        return 0;
    case FBIOGETCMAP:
    case FBIOPUTCMAP:
        for (int i = 0; i < 4; ++i)
            memcpy(code == FBIOPUTCMAP ? driver.colors[i] : channels[i],
                   code == FBIOPUTCMAP ? channels[i] : driver.colors[i], sizeof(driver.colors[i]));
        return 0;
    default:
        return -1;
    }
}
}

namespace {

constexpr uint32_t line_length = 1024;

class stream_fb : public kestal_test::counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        driver = {};
        memcpy(driver.fixed.id, "a device's name!", 16); // fills the field: no NUL behind it
        driver.fixed.smem_start = 0xE0000010;            // within a page
        driver.fixed.smem_len = 65536;
        driver.fixed.line_length = line_length;
        driver.variable.xres = 200;
        driver.variable.yres = 30;
        driver.variable.xoffset = 8;
        driver.variable.yoffset = 2;
        driver.variable.bits_per_pixel = 32;
        driver.variable.red = {16, 8, 0};
        device_ = directory_.file("fb", std::string(65536, '\0'));
        id_ = kestal_new_ctx();
    }
    void TearDown() override
    {
        kestal_destroy_ctx(id_);
        counted::TearDown();
    }

    // Opens anew, with one option more.
    int32_t open(const std::string &source, const char *type = "application/ulx_fb", const char *name = "w",
                 int32_t value = 0)
    {
        kestal_close_ctx(id_);
        kestal_ctx_set_option_int_string(id_, 0, name, value);
        kestal_ctx_set_option_string(id_, 1, "src", source.c_str());
        errno = 0;
        return kestal_open_ctx(id_, type);
    }

    kestal_ctx_fbinfo_t info()
    {
        kestal_ctx_fbinfo_t info;
        EXPECT_EQ(kestal_ctx_get_fbinfo(id_, &info), 0);
        return info;
    }

    kestal_test::temporary_directory directory_;
    std::string device_;
    uint32_t id_ = KESTAL_INVALID_ID;
};

TEST_F(stream_fb, maps_the_visible_part_under_a_root)
{
    for (const uint32_t bits : {8u, 16u, 24u, 32u}) {
        driver.variable.bits_per_pixel = bits;
        driver.colors[1][255] = 0x1234;
        ASSERT_EQ(open(device_, "application/ulx_linuxfb"), 0) << bits;
        const kestal_ctx_fbinfo_t found = info();
        EXPECT_EQ(kestal_fbmap_get_bits_per_pixel(found.m_root), bits);
        EXPECT_EQ(kestal_fbmap_get_map_size(found.m_root), line_length * 30u);
        EXPECT_EQ(kestal_fbmap_draw_pixel(found.m_root, 0x5A5A5A5A, 199, 29), 0);
        uint8_t byte = 0;
        EXPECT_EQ(pread(found.m_descriptor, &byte, 1, 16 + 31 * line_length + 207 * bits / 8), 1);
        EXPECT_EQ(byte, 0x5A) << bits;
        driver.colors[1][255] = 0;
        kestal_close_ctx(id_);
        EXPECT_EQ(driver.colors[1][255], bits == 8 ? 0x1234 : 0); // the colour map is put back
    }
}

TEST_F(stream_fb, takes_the_first_device_of_the_list)
{
    const std::string second = directory_.file("fb1", std::string(65536, '\0'));
    ASSERT_EQ(open("/dev/null||" + directory_.path("missing") + "|" + second + "|" + device_), 0);
    EXPECT_STREQ(info().m_device, second.c_str());
    EXPECT_EQ(open("/dev/null|" + std::string(5000, 'x')), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(open(directory_.path("missing")), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(stream_fb, refuses_what_it_cannot_draw_on)
{
    for (const auto &[field, value] : {std::pair{&driver.major, 4u},
                                       {&driver.variable.bits_per_pixel, 15u},
                                       {&driver.variable.xres, 0u},
                                       {&driver.variable.xres, line_length},
                                       {&driver.variable.yoffset, UINT32_MAX},
                                       {&driver.fixed.line_length, 0u},
                                       {&driver.fixed.smem_len, 29 * line_length}}) {
        const uint32_t usual = std::exchange(*field, value);
        EXPECT_EQ(open(device_), -1) << value << " instead of " << usual;
        *field = usual;
    }
    EXPECT_EQ(open(device_), 0);
}

TEST_F(stream_fb, leaves_a_given_descriptor_open)
{
    const int descriptor = ::open(device_.c_str(), O_RDWR);
    ASSERT_EQ(open("/dev/null", "application/ulx_fb", "FD", descriptor), 0);
    EXPECT_EQ(info().m_descriptor, descriptor);
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 0x01030012, nullptr, 0), -1);
    kestal_close_ctx(id_);
    EXPECT_EQ(close(descriptor), 0);
    EXPECT_EQ(open(device_, "application/ulx_fb", "fd", descriptor), -1);
}

TEST_F(stream_fb, short_memory_fails_cleanly)
{
    const kestal_test::caught_assertions reports;
    const int free_one = ::open("/dev/null", O_RDONLY);
    close(free_one);
    const auto failures = kestal_test::with_each_allocation_failing([&] {
        open(device_);
        kestal_close_ctx(id_);
    });
    EXPECT_GT(failures, 3u);
    EXPECT_EQ(::open("/dev/null", O_RDONLY), free_one) << "descriptors left open";
    close(free_one);
}

TEST_F(stream_fb, dumps_with_labels_in_one_column)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(open(device_, "application/ulx_fb", "debug", 1), 0);
    kestal_close_ctx(id_);
    const std::string text = testing::internal::GetCapturedStdout();
    const std::string begin = "Frame buffer information.\n~~~~~~~~~~~~~~~~~~~~~~~~~\n\tdevice               = \"" +
                              device_ +
                              "\"\n\tfix.id               = \"a device's name!\"\n"
                              "\tfix.smem_start       = E0000010H\n";
    EXPECT_TRUE(text.starts_with(begin)) << text;
    EXPECT_NE(text.find("\tvar.red              = offset:16, length:8, msb_right:0\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 42);
}

} // namespace
