// kestal-fb: draws a scene of overlapping windows, text and moving boxes on the frame-buffer device, or into PNG files.
//
// The scene is the same on every display: all that differs is where the root map's pixels lie, and how a colour is found
// where pixels are indexes of a palette.

#include <kestal_ulx.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <getopt.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr char help[] = R"(usage: kestal-fb [OPTION]...
Draws windows, text and an animation on the frame-buffer device; where there is none, into the PNG files
PREFIX-first.png and PREFIX-last.png.

  -d, --device LIST    the devices to try, parted by |
  -p, --png PREFIX     always draw into PNG files (without it PREFIX is kestal-fb)
  -s, --size WxH       size of the pictures (640x480)
  -b, --bits N         depth of the pictures: 8, 16, 24 or 32 (32)
  -f, --frames N       frames of the animation (60)
      --hold           keep the device's picture until a signal ends the program
      --debug          let the library tell about the device
  -h, --help           this text
)";

constexpr timespec frame_time = {.tv_sec = 0, .tv_nsec = 40'000'000};

struct settings {
    std::string devices;
    std::string prefix;
    uint32_t width = 640;
    uint32_t height = 480;
    uint32_t bits = 32;
    int frames = 60;
    bool holds = false;
    bool debugs = false;
};

volatile sig_atomic_t is_interrupted = 0;

// --- PNG files

using bytes = std::vector<uint8_t>;

void put_number(bytes &target, uint32_t number)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        target.push_back(static_cast<uint8_t>(number >> shift));
}

// A chunk is its length, its type and data, and the CRC-32 of these two.
void put_chunk(bytes &file, const char *type, const bytes &data)
{
    put_number(file, static_cast<uint32_t>(data.size()));
    const size_t begin = file.size();
    file.insert(file.end(), type, type + 4);
    file.insert(file.end(), data.begin(), data.end());
    put_number(file, kestal_crc32_ieee_802_3(0, 0, &file[begin], file.size() - begin));
}

// A zlib stream (RFC 1950) of stored blocks.
bytes stored(const bytes &data)
{
    constexpr size_t largest_block = 65535;
    bytes stream = {0x78, 0x01};
    size_t begin = 0;
    do {
        const size_t size = std::min(largest_block, data.size() - begin);
        const bool is_last = begin + size == data.size();
        const auto low = static_cast<uint8_t>(size), high = static_cast<uint8_t>(size >> 8);
        stream.insert(stream.end(), {is_last, low, high, static_cast<uint8_t>(~low), static_cast<uint8_t>(~high)});
        stream.insert(stream.end(), &data[begin], &data[begin] + size);
        begin += size;
    } while (begin < data.size());
    put_number(stream, kestal_update_adler32(1, data.data(), data.size()));
    return stream;
}

// The map's pixels as rows of red, green and blue, each behind its filter type 0.
bytes to_rows(kestal_fbmap_t *map)
{
    const uint32_t width = kestal_fbmap_get_resx(map), height = kestal_fbmap_get_resy(map);
    std::vector<uint32_t> pixels(size_t{width} * height);
    const kestal_raw_bitmap_t target = {.m_size = pixels.size() * 4,
                                        .m_pixels = pixels.data(),
                                        .m_color_interface = KESTAL_COLOR_ARGB8888,
                                        .m_width = width,
                                        .m_height = height,
                                        .m_reserved = 0,
                                        .m_line_length = uint64_t{width} * 4};
    kestal_copy_raw_bitmap(&target, &map->m_bitmap, 0, 0, nullptr);
    bytes rows;
    rows.reserve(size_t{height} * (1 + 3 * size_t{width}));
    for (size_t i = 0; i < pixels.size(); ++i) {
        if (i % width == 0)
            rows.push_back(0);
        for (const int shift : {16, 8, 0})
            rows.push_back(static_cast<uint8_t>(pixels[i] >> shift));
    }
    return rows;
}

void write_png(const std::string &name, kestal_fbmap_t *map)
{
    bytes header;
    put_number(header, kestal_fbmap_get_resx(map));
    put_number(header, kestal_fbmap_get_resy(map));
    header.insert(header.end(), {8, 2, 0, 0, 0}); // 8 bits a channel, RGB, deflate, plain filters, not interlaced
    bytes file = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    put_chunk(file, "IHDR", header);
    put_chunk(file, "IDAT", stored(to_rows(map)));
    put_chunk(file, "IEND", {});

    FILE *output = fopen(name.c_str(), "wb");
    const bool is_written = output != nullptr && fwrite(file.data(), 1, file.size(), output) == file.size();
    if (output == nullptr || fclose(output) != 0 || !is_written)
        throw std::runtime_error(name + ": " + strerror(errno));
    printf("%s\n", name.c_str());
}

// --- displays

// Where the scene is drawn.
class display {
public:
    virtual ~display() = default;
    virtual kestal_fbmap_t *root() const = 0;
    virtual void first_frame() {}
    virtual void next_frame() {}
    virtual void last_frame() {}
};

class picture_files : public display {
public:
    explicit picture_files(const settings &wanted) : prefix_(wanted.prefix.empty() ? "kestal-fb" : wanted.prefix)
    {
        root_ =
            kestal_new_fbmap(nullptr, KESTAL_FBMAP_OWN_MEMORY, kestal_bits_per_pixel_to_color_interface(wanted.bits), 0,
                             0, wanted.width, wanted.height, 0, "_master");
        if (root_ == nullptr)
            throw std::runtime_error("no memory for the picture");
    }
    ~picture_files() override { kestal_free_fbmap(root_); }
    picture_files(const picture_files &) = delete;
    picture_files &operator=(const picture_files &) = delete;

    kestal_fbmap_t *root() const override { return root_; }
    void first_frame() override { write_png(prefix_ + "-first.png", root_); }
    void last_frame() override { write_png(prefix_ + "-last.png", root_); }

private:
    std::string prefix_;
    kestal_fbmap_t *root_ = nullptr;
};

class device final : public display {
public:
    explicit device(const settings &wanted) : holds_(wanted.holds), id_(kestal_new_ctx())
    {
        if (!wanted.devices.empty())
            kestal_ctx_set_option_string(id_, 1, "src", wanted.devices.c_str());
        if (wanted.debugs)
            kestal_ctx_set_option_string(id_, 1, "debug", "1");
        if (kestal_open_ctx(id_, "application/ulx_fb") != 0 || kestal_ctx_get_fbinfo(id_, &info_) != 0)
            return;
        if (kestal_fbmap_get_bits_per_pixel(root()) == 8)
            use_library_palette();
    }
    ~device() override { kestal_destroy_ctx(id_); }
    device(const device &) = delete;
    device &operator=(const device &) = delete;

    bool is_open() const { return info_.m_root != nullptr; }
    kestal_fbmap_t *root() const override { return info_.m_root; }
    void next_frame() override { nanosleep(&frame_time, nullptr); }
    void last_frame() override
    {
        printf("drawn on %s, %ux%u at %u bits\n", info_.m_device, kestal_fbmap_get_resx(root()),
               kestal_fbmap_get_resy(root()), kestal_fbmap_get_bits_per_pixel(root()));
        fflush(stdout);
        while (holds_ && is_interrupted == 0)
            nanosleep(&frame_time, nullptr);
    }

private:
    // The context puts the device's own colours back when it closes.
    void use_library_palette() const
    {
        std::vector<uint16_t> red(256), green(256), blue(256);
        for (uint32_t i = 0; i < 256; ++i) {
            const uint32_t color = kestal_convert_color(KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DDDP0008, i);
            red[i] = static_cast<uint16_t>((color >> 16 & 0xFF) * 0x101);
            green[i] = static_cast<uint16_t>((color >> 8 & 0xFF) * 0x101);
            blue[i] = static_cast<uint16_t>((color & 0xFF) * 0x101);
        }
        const fb_cmap request = {
            .start = 0, .len = 256, .red = red.data(), .green = green.data(), .blue = blue.data(), .transp = nullptr};
        if (ioctl(info_.m_descriptor, FBIOPUTCMAP, &request) != 0)
            throw std::runtime_error(std::string("colour map: ") + strerror(errno));
    }

    bool holds_;
    uint32_t id_;
    kestal_ctx_fbinfo_t info_ = {};
};

// --- the scene

constexpr uint32_t white = 0xFFFFFFFF, black = 0xFF000000, navy = 0xFF000087, sky = 0xFF87AFFF, gold = 0xFFFFD700;
constexpr uint32_t red = 0xFFD70000, green = 0xFF00AF00, blue = 0xFF005FD7, key = 0xFFFF00FF, paper = 0xFFEEEEEE;
constexpr uint32_t slate = 0xFF303030;

// The index of the library's palette that comes nearest.
uint32_t nearest_index(uint32_t color)
{
    uint32_t best = 0, least = UINT32_MAX;
    for (uint32_t index = 0; index < 256; ++index) {
        const uint32_t other = kestal_convert_color(KESTAL_COLOR_ARGB8888, KESTAL_COLOR_DDDP0008, index);
        uint32_t distance = 0;
        for (const int shift : {16, 8, 0}) {
            const int difference = static_cast<int>(color >> shift & 0xFF) - static_cast<int>(other >> shift & 0xFF);
            distance += static_cast<uint32_t>(difference * difference);
        }
        if (distance < least)
            best = index, least = distance;
    }
    return best;
}

// An ARGB8888 colour in the map's format.
uint32_t ink(kestal_fbmap_t *map, uint32_t color)
{
    const uint32_t format = kestal_fbmap_get_color_interface(map);
    if (format == KESTAL_COLOR_DDDP0008)
        return nearest_index(color);
    return kestal_fbmap_convert_color(map, format, KESTAL_COLOR_ARGB8888, color);
}

struct brush {
    int32_t x, y;
    uint32_t color;
    uint32_t outline = 0;    // 0: none
    uint32_t background = 0; // 0: none
    uint32_t scale[2] = {1, 1};
    int32_t angle = 0;
};

void write(kestal_fbmap_t *map, const brush &with, const char *text)
{
    kestal_fbmap_set_brush_color(map, ink(map, with.color), ink(map, with.background), ink(map, with.outline));
    kestal_fbmap_use_brush_color(map, 1, with.background != 0, with.outline != 0);
    kestal_fbmap_set_brush_xy_scale(map, with.scale[0], with.scale[1], with.scale[0], with.scale[1]);
    kestal_fbmap_set_brush_angle(map, with.angle);
    kestal_fbmap_set_brush_xy(map, with.x, with.y);
    kestal_fbmap_draw_puts(map, text);
}

// A tree of windows over the display's root, and how it moves.
class scene {
public:
    explicit scene(kestal_fbmap_t *root) : root_(root)
    {
        width_ = static_cast<int32_t>(kestal_fbmap_get_resx(root));
        height_ = static_cast<int32_t>(kestal_fbmap_get_resy(root));
        draw_desktop();
        draw_text_window();
        draw_translucent_window();
        draw_keyed_window();
        draw_glass_window();
        for (kestal_fbmap_t *map : {desktop_, text_, translucent_, keyed_, glass_})
            kestal_fbmap_update(map);
    }
    ~scene()
    {
        // What was drawn stays on the display until somebody else draws.
        for (kestal_fbmap_t *map : {glass_, keyed_, translucent_, text_, desktop_}) {
            map->m_flags |= KESTAL_FBMAP_KEEP_VISIBLE;
            kestal_free_fbmap(map);
        }
    }
    scene(const scene &) = delete;
    scene &operator=(const scene &) = delete;

    void step(int frame)
    {
        const int32_t phase = frame % 40 < 20 ? frame % 40 : 40 - frame % 40;
        kestal_fbmap_move(keyed_, width_ * 5 / 8 - 6 * phase, height_ / 8 + 3 * phase);
        kestal_fbmap_move(translucent_, width_ / 16 + 5 * phase, height_ * 9 / 16 - 2 * phase);
        kestal_fbmap_resize(glass_, width_ * 9 / 16, height_ / 2, 200 + 3 * static_cast<uint32_t>(phase),
                            140 + 2 * static_cast<uint32_t>(phase));
        draw_glass();
        kestal_fbmap_update(glass_);
    }

private:
    kestal_fbmap_t *make(int32_t x, int32_t y, int32_t width, int32_t height, const char *name, uint32_t format = 0)
    {
        kestal_fbmap_t *map =
            kestal_new_fbmap(root_, KESTAL_FBMAP_OWN_MEMORY, format, x, y, static_cast<uint32_t>(width),
                             static_cast<uint32_t>(height), ++count_, "%s", name);
        if (map == nullptr)
            throw std::runtime_error("no memory for a window");
        return map;
    }

    static void draw_frame(kestal_fbmap_t *map, uint32_t color, const char *title)
    {
        const uint32_t width = kestal_fbmap_get_resx(map), height = kestal_fbmap_get_resy(map);
        kestal_fbmap_draw_box(map, ink(map, color), 0, 0, width, 20, 1);
        kestal_fbmap_draw_box(map, ink(map, color), 0, 0, width, height, 0);
        write(map, {.x = 6, .y = 2, .color = white}, title);
    }

    // The library's colour bar is made of RGB colours, which a palette does not have.
    void draw_bars(uint32_t width, uint32_t height)
    {
        if (kestal_fbmap_get_color_interface(desktop_) != KESTAL_COLOR_DDDP0008) {
            kestal_fbmap_draw_color_bar(desktop_, 1, 255, 0, 0, width, height);
            return;
        }
        const uint32_t bars[] = {white, 0xFFFFFF00, 0xFF00FFFF, 0xFF00FF00, key, 0xFFFF0000, 0xFF0000FF};
        for (uint32_t i = 0; i < 7; ++i)
            kestal_fbmap_draw_box(desktop_, ink(desktop_, bars[i]), static_cast<int32_t>(width * i / 7), 0,
                                  width / 7 + 1, height, 1);
    }

    void draw_desktop()
    {
        desktop_ = make(0, 0, width_, height_, "desktop");
        const auto width = static_cast<uint32_t>(width_), height = static_cast<uint32_t>(height_);
        draw_bars(width, height);
        kestal_fbmap_draw_ruler(desktop_, ink(desktop_, slate), 0, 0, width, height, 12, 12);
    }

    void draw_text_window()
    {
        text_ = make(width_ / 16, height_ / 12, 330, 250, "text");
        kestal_fbmap_draw_clear(text_, ink(text_, paper));
        draw_frame(text_, navy, "Text 글자");
        write(text_, {.x = 10, .y = 28, .color = black}, "The quick brown fox jumps over 13 dogs.");
        write(text_, {.x = 10, .y = 48, .color = blue}, "키스의 고유조건은 입술끼리 만나야 하고");
        write(text_, {.x = 10, .y = 70, .color = white, .background = green}, "Background 바탕색");
        write(text_, {.x = 10, .y = 94, .color = gold, .outline = black}, "Outline 테두리");
        write(text_, {.x = 10, .y = 120, .color = red, .scale = {2, 1}}, "Scale 크기");
        write(text_, {.x = 10, .y = 158, .color = gold, .outline = navy, .scale = {3, 2}}, "Both 모두");
        write(text_, {.x = 215, .y = 120, .color = navy, .angle = 30}, "Angle 각도");
        write(text_, {.x = 10, .y = 198, .color = slate},
              "A longer line of text wraps at the edge of its window 긴 글은 "
              "다음 줄로 이어집니다.");
    }

    void draw_translucent_window()
    {
        translucent_ = make(width_ / 16, height_ * 9 / 16, 230, 130, "window alpha");
        kestal_fbmap_draw_clear(translucent_, ink(translucent_, blue));
        draw_frame(translucent_, navy, "Window alpha");
        write(translucent_, {.x = 14, .y = 40, .color = white, .scale = {3, 2}}, "반투명 창");
        write(translucent_, {.x = 14, .y = 80, .color = gold}, "160 of 255");
        kestal_fbmap_set_alpha_window(translucent_, 160);
        kestal_fbmap_use_alpha_window(translucent_, 1);
    }

    void draw_keyed_window()
    {
        keyed_ = make(width_ * 5 / 8, height_ / 8, 160, 160, "colour key");
        kestal_fbmap_draw_clear(keyed_, ink(keyed_, key));
        kestal_fbmap_draw_circle(keyed_, ink(keyed_, red), 80, 80, 78, 1);
        kestal_fbmap_draw_circle(keyed_, ink(keyed_, white), 80, 80, 60, 1);
        kestal_fbmap_draw_circle(keyed_, ink(keyed_, key), 80, 80, 40, 1);
        write(keyed_, {.x = 38, .y = 70, .color = black, .outline = white}, "Colour key");
        kestal_fbmap_set_ccolor(keyed_, ink(keyed_, key));
        kestal_fbmap_use_ccolor(keyed_, 1);
    }

    void draw_glass_window()
    {
        const bool is_palette = kestal_fbmap_get_color_interface(root_) == KESTAL_COLOR_DDDP0008;
        glass_ = make(width_ * 9 / 16, height_ / 2, 200, 140, "pixel alpha", is_palette ? 0 : KESTAL_COLOR_ARGB8888);
        draw_glass();
        kestal_fbmap_use_alpha_pixel(glass_, 1);
    }

    // From clear at the top to opaque at the bottom; opaque all over where pixels have no alpha.
    void draw_glass()
    {
        const uint32_t width = kestal_fbmap_get_resx(glass_), height = kestal_fbmap_get_resy(glass_);
        for (uint32_t y = 0; y < height; ++y)
            kestal_fbmap_draw_hline(glass_, ink(glass_, (y * 255 / height) << 24 | (slate & 0xFFFFFF)), 0,
                                    static_cast<int32_t>(y), width);
        draw_frame(glass_, slate, "Alpha per pixel");
        write(glass_, {.x = 12, .y = static_cast<int32_t>(height) - 44, .color = sky, .scale = {2, 1}}, "유리창");
    }

    kestal_fbmap_t *root_;
    kestal_fbmap_t *desktop_ = nullptr, *text_ = nullptr, *translucent_ = nullptr, *keyed_ = nullptr, *glass_ = nullptr;
    int32_t width_ = 0, height_ = 0;
    uint32_t count_ = 0;
};

void show(display &target, int frames)
{
    scene shown(target.root());
    target.first_frame();
    for (int frame = 1; frame <= frames && is_interrupted == 0; ++frame) {
        target.next_frame();
        shown.step(frame);
    }
    target.last_frame();
}

// --- the command line

[[noreturn]] void refuse(const std::string &message)
{
    throw std::runtime_error(message + "; kestal-fb --help tells more");
}

uint32_t to_number(const std::string &text, unsigned long most)
{
    char *end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(text.c_str(), &end, 10);
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || errno != 0 || number > most)
        refuse("'" + text + "' is no number up to " + std::to_string(most));
    return static_cast<uint32_t>(number);
}

void take_size(settings &wanted, const std::string &text)
{
    const size_t cross = std::min(text.find('x'), text.size() - 1);
    wanted.width = to_number(text.substr(0, cross), 8192);
    wanted.height = to_number(text.substr(cross + 1), 8192);
    if (wanted.width == 0 || wanted.height == 0)
        refuse("a picture has at least one pixel");
}

settings read_arguments(int argc, char **argv)
{
    enum { hold = 256, debug };
    const option options[] = {{"device", required_argument, nullptr, 'd'},
                              {"png", required_argument, nullptr, 'p'},
                              {"size", required_argument, nullptr, 's'},
                              {"bits", required_argument, nullptr, 'b'},
                              {"frames", required_argument, nullptr, 'f'},
                              {"hold", no_argument, nullptr, hold},
                              {"debug", no_argument, nullptr, debug},
                              {"help", no_argument, nullptr, 'h'},
                              {nullptr, 0, nullptr, 0}};
    settings wanted;
    for (int code = 0; (code = getopt_long(argc, argv, "d:p:s:b:f:h", options, nullptr)) != -1;)
        switch (code) {
        case 'd':
            wanted.devices = optarg;
            break;
        case 'p':
            wanted.prefix = optarg;
            break;
        case 's':
            take_size(wanted, optarg);
            break;
        case 'b':
            wanted.bits = to_number(optarg, 32);
            break;
        case 'f':
            wanted.frames = static_cast<int>(to_number(optarg, 1000000));
            break;
        case hold:
            wanted.holds = true;
            break;
        case debug:
            wanted.debugs = true;
            break;
        case 'h':
            exit(fputs(help, stdout) < 0 || fflush(stdout) != 0 ? EXIT_FAILURE : EXIT_SUCCESS);
        default:
            refuse("bad option");
        }
    if (optind < argc)
        refuse(std::string("'") + argv[optind] + "' is no option");
    if (wanted.bits % 8 != 0 || wanted.bits == 0)
        refuse("a picture has 8, 16, 24 or 32 bits");
    return wanted;
}

void run(const settings &wanted)
{
    if (wanted.prefix.empty()) {
        device screen(wanted);
        if (screen.is_open()) {
            show(screen, wanted.frames);
            return;
        }
        if (!wanted.devices.empty())
            throw std::runtime_error(wanted.devices + ": no frame buffer: " + strerror(errno));
    }
    picture_files files(wanted);
    show(files, wanted.frames);
}

} // namespace

int main(int argc, char **argv)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        signal(number, [](int) { is_interrupted = 1; });
    try {
        run(read_arguments(argc, argv));
    } catch (const std::exception &error) {
        fprintf(stderr, "kestal-fb: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
