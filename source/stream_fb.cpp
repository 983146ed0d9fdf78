// Frame-buffer devices of the kernel: the device is found, mapped, and covered by the root of a tree of maps.
#include "stream_kind.hpp"

#include "guard.hpp"

#include <kestal_ulx/color.h>
#include <kestal_ulx/fbmap.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include <errno.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace kestal {

namespace {

constexpr char default_devices[] = "/dev/fb|/dev/fb0|/dev/fb/0|/dev/fb1|/dev/fb/1|/dev/fb2|/dev/fb/2|/dev/graphics/fb0";
constexpr unsigned frame_buffer_major = 29;
constexpr uint32_t palette_size = 256;
constexpr size_t longest_path = 4095;

// The device's colour map, to be put back as it was found.
struct saved_palette {
    bool is_saved;
    uint16_t channels[4][palette_size];

    fb_cmap as_request()
    {
        return {.start = 0,
                .len = palette_size,
                .red = channels[0],
                .green = channels[1],
                .blue = channels[2],
                .transp = channels[3]};
    }
};

// A context's state.
struct open_device {
    int descriptor;
    bool is_owned; // closed with the context
    fb_fix_screeninfo fixed;
    fb_var_screeninfo variable;
    void *mapping; // null: not mapped
    size_t mapping_size;
    saved_palette palette;
    kestal_fbmap_t *root;
    char path[longest_path + 1]; // empty for a descriptor of the caller's
};

// --- the debug dump

void dump_number(const char *label, uint64_t value, const char *unit = "")
{
    kestal_printf("\t%-20s = %lu%s\n", label, value, unit);
}

void dump_hexadecimal(const char *label, uint64_t value)
{
    kestal_printf("\t%-20s = %08lXH\n", label, value);
}

void dump_channel(const char *label, const fb_bitfield &field)
{
    kestal_printf("\t%-20s = offset:%lu, length:%lu, msb_right:%lu\n", label, uint64_t{field.offset},
                  uint64_t{field.length}, uint64_t{field.msb_right});
}

void dump_fixed(const fb_fix_screeninfo &fixed)
{
    char id[sizeof(fixed.id) + 1] = {};
    memcpy(id, fixed.id, sizeof(fixed.id));
    kestal_printf("\t%-20s = \"%s\"\n", "fix.id", id);
    dump_hexadecimal("fix.smem_start", fixed.smem_start);
    dump_number("fix.smem_len", fixed.smem_len, " bytes");
    dump_number("fix.type", fixed.type);
    dump_number("fix.type_aux", fixed.type_aux);
    dump_number("fix.visual", fixed.visual);
    dump_number("fix.xpanstep", fixed.xpanstep);
    dump_number("fix.ypanstep", fixed.ypanstep);
    dump_number("fix.ywrapstep", fixed.ywrapstep);
    dump_number("fix.line_length", fixed.line_length, " bytes");
    dump_hexadecimal("fix.mmio_start", fixed.mmio_start);
    dump_number("fix.mmio_len", fixed.mmio_len, " bytes");
    dump_number("fix.accel", fixed.accel);
}

void dump_variable(const fb_var_screeninfo &variable)
{
    dump_number("var.xres", variable.xres);
    dump_number("var.yres", variable.yres);
    dump_number("var.xres_virtual", variable.xres_virtual);
    dump_number("var.yres_virtual", variable.yres_virtual);
    dump_number("var.xoffset", variable.xoffset);
    dump_number("var.yoffset", variable.yoffset);
    dump_number("var.bits_per_pixel", variable.bits_per_pixel, " bpp");
    dump_number("var.grayscale", variable.grayscale);
    dump_channel("var.red", variable.red);
    dump_channel("var.green", variable.green);
    dump_channel("var.blue", variable.blue);
    dump_channel("var.transp", variable.transp);
    dump_number("var.nonstd", variable.nonstd);
    dump_number("var.activate", variable.activate);
    dump_number("var.height", variable.height);
    dump_number("var.width", variable.width);
    dump_hexadecimal("var.accel_flags", variable.accel_flags);
    dump_number("var.pixclock", variable.pixclock);
    dump_number("var.left_margin", variable.left_margin);
    dump_number("var.right_margin", variable.right_margin);
    dump_number("var.upper_margin", variable.upper_margin);
    dump_number("var.lower_margin", variable.lower_margin);
    dump_number("var.hsync_len", variable.hsync_len);
    dump_number("var.vsync_len", variable.vsync_len);
    dump_hexadecimal("var.sync", variable.sync);
    dump_hexadecimal("var.vmode", variable.vmode);
}

void dump(const open_device &device)
{
    kestal_printf("Frame buffer information.\n");
    kestal_printf("~~~~~~~~~~~~~~~~~~~~~~~~~\n");
    kestal_printf("\t%-20s = \"\033[1;33m%s\033[0m\"\n", "device", device.path);
    dump_fixed(device.fixed);
    dump_variable(device.variable);
}

// --- finding a device

bool is_frame_buffer(const struct stat &status)
{
    if (S_ISCHR(status.st_mode) && major(status.st_rdev) == frame_buffer_major)
        return true;
    errno = ENODEV;
    return false;
}

// The visible part's first byte in the device's memory.
uint64_t visible_offset(const open_device &device)
{
    const fb_var_screeninfo &variable = device.variable;
    return uint64_t{variable.yoffset} * device.fixed.line_length +
           uint64_t{variable.xoffset} * variable.bits_per_pixel / 8;
}

// Whether the library can draw at the device's depth, and all that is visible lies in the device's memory.
bool is_usable(const open_device &device)
{
    const fb_var_screeninfo &variable = device.variable;
    const bool is_served = variable.bits_per_pixel >= 8 && variable.xres > 0 && variable.yres > 0 &&
                           kestal_bits_per_pixel_to_color_interface(variable.bits_per_pixel) != 0;
    const uint64_t row = (uint64_t{variable.xoffset} + variable.xres) * variable.bits_per_pixel / 8;
    const uint64_t rows = uint64_t{variable.yoffset} + variable.yres;
    if (is_served && row <= device.fixed.line_length && rows <= device.fixed.smem_len / device.fixed.line_length)
        return true;
    errno = ENODEV;
    return false;
}

bool inquire(open_device &device, int descriptor)
{
    struct stat status;
    return fstat(descriptor, &status) == 0 && is_frame_buffer(status) &&
           ioctl(descriptor, FBIOGET_FSCREENINFO, &device.fixed) == 0 &&
           ioctl(descriptor, FBIOGET_VSCREENINFO, &device.variable) == 0 && is_usable(device);
}

// What is no frame buffer is not opened: opening may have effects on a pipe or a terminal.
bool open_candidate(open_device &device)
{
    struct stat status;
    if (stat(device.path, &status) != 0 || !is_frame_buffer(status))
        return false;
    owned_descriptor descriptor(open(device.path, O_RDWR | O_CLOEXEC));
    if (descriptor.get() < 0 || !inquire(device, descriptor.get()))
        return false;
    device.descriptor = descriptor.release();
    device.is_owned = true;
    return true;
}

// Tries the '|'-separated paths in their order. Blanks belong to a path, empty paths are passed over.
bool open_first(open_device &device, const char *list)
{
    errno = ENOENT;
    for (const char *path = list;;) {
        const size_t length = strcspn(path, "|");
        if (length > 0 && length <= longest_path) {
            memcpy(device.path, path, length);
            device.path[length] = '\0';
            if (open_candidate(device))
                return true;
        }
        if (path[length] == '\0')
            return false;
        path += length + 1;
    }
}

bool take_given(open_device &device, int descriptor)
{
    if (!inquire(device, descriptor))
        return false;
    device.descriptor = descriptor;
    return true;
}

// --- the open device

void save_palette(open_device &device)
{
    if (device.variable.bits_per_pixel != 8)
        return;
    fb_cmap request = device.palette.as_request();
    device.palette.is_saved = ioctl(device.descriptor, FBIOGETCMAP, &request) == 0;
}

void restore_palette(open_device &device)
{
    if (!device.palette.is_saved)
        return;
    fb_cmap request = device.palette.as_request();
    ioctl(device.descriptor, FBIOPUTCMAP, &request);
}

// Where the device's memory begins in the first page that is mapped.
size_t offset_in_page(const open_device &device)
{
    return static_cast<size_t>(device.fixed.smem_start) & (static_cast<size_t>(sysconf(_SC_PAGESIZE)) - 1);
}

bool map_memory(open_device &device)
{
    const size_t size = offset_in_page(device) + device.fixed.smem_len;
    void *mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, device.descriptor, 0);
    if (mapping == MAP_FAILED)
        return false;
    device.mapping = mapping;
    device.mapping_size = size;
    return true;
}

bool make_root(open_device &device, bool is_debugging)
{
    const fb_var_screeninfo &variable = device.variable;
    device.root = kestal_new_fbmap(nullptr, is_debugging ? KESTAL_FBMAP_DEBUG : 0,
                                   kestal_bits_per_pixel_to_color_interface(variable.bits_per_pixel), 0, 0,
                                   variable.xres, variable.yres, 0, "_master");
    if (device.root == nullptr)
        return false;
    kestal_raw_bitmap_t &bitmap = device.root->m_bitmap;
    bitmap.m_pixels = static_cast<uint8_t *>(device.mapping) + offset_in_page(device) + visible_offset(device);
    bitmap.m_line_length = device.fixed.line_length;
    bitmap.m_size = bitmap.m_line_length * variable.yres;
    device.root->m_context = &device;
    device.root->m_flags |= KESTAL_FBMAP_DEVICE;
    return true;
}

// Releases what the device holds, however far its opening came.
int32_t release(open_device &device)
{
    if (device.root != nullptr)
        kestal_free_fbmap(device.root);
    if (device.mapping != nullptr)
        munmap(device.mapping, device.mapping_size);
    restore_palette(device);
    return device.is_owned ? close(device.descriptor) : 0;
}

uint32_t open_device_of(open_device &device, const stream_request &request)
{
    const bool is_found = request.has_descriptor
                              ? take_given(device, request.descriptor)
                              : open_first(device, request.source == nullptr ? default_devices : request.source);
    if (!is_found)
        return KESTAL_CTX_ERROR_NOT_OPENED;
    if (request.is_debugging)
        dump(device);
    save_palette(device);
    if (!map_memory(device))
        return KESTAL_CTX_ERROR_NOT_OPENED;
    return make_root(device, request.is_debugging) ? KESTAL_CTX_ERROR_NONE : KESTAL_CTX_ERROR_NO_MEMORY;
}

uint32_t open_fb(kestal_ctx_t &ctx, stream_request &request)
{
    owned_block<open_device> device(kestal_alloc(sizeof(open_device)), __func__);
    if (!device)
        return KESTAL_CTX_ERROR_NO_MEMORY;
    memset(static_cast<void *>(device.get()), 0, sizeof(open_device));
    if (const uint32_t error = open_device_of(*device.get(), request); error != KESTAL_CTX_ERROR_NONE) {
        const int cause = errno;
        release(*device.get());
        errno = cause;
        return error;
    }
    ctx.m_plugin_state = device.release();
    return KESTAL_CTX_ERROR_NONE;
}

int32_t close_fb(kestal_ctx_t &ctx)
{
    const owned_block<open_device> device(std::exchange(ctx.m_plugin_state, nullptr), __func__);
    return device ? release(*device.get()) : 0;
}

int32_t control_fb(kestal_ctx_t &ctx, uint32_t code, va_list arguments)
{
    if (code != KESTAL_CTX_CONTROL_GET_FBINFO) {
        ctx.m_last_error = KESTAL_CTX_ERROR_NOT_SUPPORTED;
        return -1;
    }
    auto *info = take_record<kestal_ctx_fbinfo_t>(ctx, arguments);
    if (info == nullptr)
        return -1;
    *info = {};
    const auto *device = static_cast<const open_device *>(ctx.m_plugin_state);
    if (device == nullptr) {
        ctx.m_last_error = KESTAL_CTX_ERROR_NOT_OPENED;
        return -1;
    }
    info->m_device = device->path;
    info->m_descriptor = device->descriptor;
    info->m_root = device->root;
    return 0;
}

} // namespace

constinit const stream_kind fb_kind = {.code = KESTAL_CTX_KIND_LINUXFB,
                                       .types = {"application/ulx_linuxfb", "application/ulx_fb"},
                                       .open = open_fb,
                                       .close = close_fb,
                                       .xcontrol = control_fb};

} // namespace kestal
