// Frame-buffer contexts over a regular file that passes for a device: what a driver would answer, the test answers.
#include "support.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstring>

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
    bool has_variable = true;
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
        return driver.has_variable ? 0 : -1;
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
        strcpy(driver.fixed.id, "a device's name"); // fills the field: no NUL behind it
        driver.fixed.id[15] = '!';
        driver.fixed.smem_start = 0xE0000000;
        driver.fixed.smem_len = 65536;
        driver.fixed.line_length = line_length;
        driver.variable.xres = 200;
        driver.variable.yres = 30;
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

    // Opens anew, with one option more: 0, or the last error of a refused open.
    uint32_t open(const std::string &source, const char *type = "application/ulx_fb", const char *name = "w",
                  int32_t value = 0)
    {
        kestal_close_ctx(id_);
        kestal_ctx_set_option_int_string(id_, 0, name, value);
        kestal_ctx_set_option_string(id_, 1, "src", source.c_str());
        errno = 0;
        const auto *record = static_cast<const kestal_ctx_t *>(kestal_ginstance_search(id_, nullptr));
        return kestal_open_ctx(id_, type) == 0 ? 0 : record->m_last_error;
    }

    kestal_ctx_fbinfo_t info()
    {
        kestal_ctx_fbinfo_t info;
        memset(static_cast<void *>(&info), 0xFF, sizeof(info));
        EXPECT_EQ(kestal_ctx_get_fbinfo(id_, &info), 0);
        return info;
    }

    kestal_test::temporary_directory directory_;
    std::string device_;
    uint32_t id_ = KESTAL_INVALID_ID;
};

TEST_F(stream_fb, maps_the_visible_part_under_a_root)
{
    driver.fixed.smem_start += 16;
    driver.variable.xoffset = 8;
    driver.variable.yoffset = 2;
    for (const auto &[bits, interface] : {std::pair{8u, KESTAL_COLOR_DDDP0008},
                                          {16, KESTAL_COLOR_DRGB0565},
                                          {24, KESTAL_COLOR_DRGB0888},
                                          {32, KESTAL_COLOR_ARGB8888}}) {
        driver.variable.bits_per_pixel = bits;
        driver.colors[1][255] = 0x1234;
        ASSERT_EQ(open(device_, "application/ulx_linuxfb"), 0u) << bits;
        EXPECT_EQ(kestal_get_valid_ctx(id_)->m_kind, KESTAL_CTX_KIND_LINUXFB);
        const kestal_ctx_fbinfo_t found = info();
        EXPECT_STREQ(found.m_device, device_.c_str());
        EXPECT_STREQ(found.m_root->m_name, "_master");
        EXPECT_EQ(std::count(found.m_reserved, found.m_reserved + 8, 0u), 8);
        EXPECT_EQ(kestal_fbmap_get_color_interface(found.m_root), interface);
        EXPECT_EQ(kestal_fbmap_get_line_length(found.m_root), line_length);
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
    ASSERT_EQ(open("/dev/null||" + directory_.path("missing") + "|" + second + "|" + device_), 0u);
    EXPECT_STREQ(info().m_device, second.c_str());
    for (const auto &[source, error] : {std::pair{"/dev/null|" + std::string(5000, 'x'), ENODEV},
                                        {"/dev/null", ENODEV},
                                        {directory_.path("missing"), ENOENT}}) {
        EXPECT_EQ(open(source), KESTAL_CTX_ERROR_NOT_OPENED) << source;
        EXPECT_EQ(errno, error) << source;
    }
    EXPECT_EQ(open(device_, "application/ulx_windows_dib"), KESTAL_CTX_ERROR_NOT_SUPPORTED);
}

TEST_F(stream_fb, refuses_what_it_cannot_draw_on)
{
    const auto usual = driver;
    void (*const changes[])() = {[] { driver.major = 4; },
                                 [] { driver.has_variable = false; },
                                 [] { driver.variable.bits_per_pixel = 4; },
                                 [] { driver.variable.bits_per_pixel = 15; },
                                 [] { driver.variable.xres = 0; },
                                 [] { driver.variable.xres = line_length; },
                                 [] { driver.variable.yoffset = UINT32_MAX; },
                                 [] { driver.fixed.line_length = 0; },
                                 [] { driver.fixed.smem_len = 29 * line_length; }};
    for (const auto &change : changes) {
        change();
        EXPECT_EQ(open(device_), KESTAL_CTX_ERROR_NOT_OPENED) << &change - changes;
        driver = usual;
    }
    EXPECT_EQ(open(device_), 0u);
}

TEST_F(stream_fb, leaves_a_given_descriptor_open)
{
    const int descriptor = ::open(device_.c_str(), O_RDWR);
    ASSERT_EQ(open("/dev/null", "application/ulx_fb", "FD", descriptor), 0u);
    EXPECT_EQ(info().m_descriptor, descriptor);
    EXPECT_STREQ(info().m_device, "");
    kestal_close_ctx(id_);
    EXPECT_EQ(close(descriptor), 0);
    EXPECT_EQ(open(device_, "application/ulx_fb", "fd", descriptor), KESTAL_CTX_ERROR_NOT_OPENED);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(stream_fb, answers_controls_and_failing_memory)
{
    ASSERT_EQ(open(device_), 0u);
    kestal_ctx_fbinfo_t record;
    EXPECT_EQ(kestal_ctx_xcontrol(id_, KESTAL_CTX_CONTROL_GET_FBINFO, &record, sizeof(record) - 1), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), static_cast<int32_t>(KESTAL_CTX_ERROR_BAD_ARGUMENT));
    EXPECT_EQ(kestal_ctx_xcontrol(id_, 0x01030012, &record, sizeof(record)), -1);
    EXPECT_EQ(kestal_ctx_get_last_error(id_), static_cast<int32_t>(KESTAL_CTX_ERROR_NOT_SUPPORTED));
    EXPECT_EQ(kestal_ctx_write(id_, "x", 1), -1);
    const kestal_test::caught_assertions reports;
    kestal_close_ctx(id_);
    const auto failures = kestal_test::with_each_allocation_failing([&] {
        open(device_);
        kestal_close_ctx(id_);
    });
    EXPECT_GT(failures, 3u);
}

TEST_F(stream_fb, dumps_with_labels_in_one_column)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(open(device_, "application/ulx_fb", "debug", 1), 0u);
    kestal_close_ctx(id_);
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(text.find("Frame buffer information.\n~~~~~~~~~~~~~~~~~~~~~~~~~\n\tdevice               = \"" + device_ +
                        "\"\n\tfix.id               = \"a device's name!\"\n"
                        "\tfix.smem_start       = E0000000H\n\tfix.smem_len         = 65536 bytes\n"),
              0u)
        << text;
    for (const char *line :
         {"\tvar.xres             = 200\n", "\tvar.bits_per_pixel   = 32 bpp\n",
          "\tvar.red              = offset:16, length:8, msb_right:0\n", "\tvar.vmode            = 00000000H\n"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 42);
}

} // namespace
