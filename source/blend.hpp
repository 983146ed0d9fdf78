// Rows of pixels laid over others: by colour key, by one alpha, by each pixel's alpha.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace kestal {

// What a source's pixels do to those below. A rule as it is made here just copies.
struct blend_rule {
    bool keyed = false;
    uint32_t key = 0; // in the source's format: such pixels are left out
    bool pixel_alpha = false;
    uint32_t window_alpha = 255;
    bool opaque = false; // the source's alpha channel is not handed on
};

// How four channels of a byte each are mixed.
struct direct_mix {
    uint32_t alpha_shift;
    bool pixel_alpha;
    uint32_t window_alpha;
    uint32_t set_bits; // the alpha channel, where the source's is not handed on
};

struct direct_box {
    uint8_t *target;
    uint64_t target_stride; // bytes from row to row
    const uint8_t *source;
    uint64_t source_stride;
    size_t width;
    size_t height;
};

using direct_mixer = void (*)(const direct_box &box, const direct_mix &mix);

// Lays rows over rows of the same length. Both formats have 8, 16, 24 or 32 bits. Channels are mixed at 8 bits:
// (source x alpha + target x (255 - alpha)) / 255, rounded; what has no channels to mix is copied from alpha 128 on.
class row_blender {
public:
    row_blender(uint32_t target_code, uint32_t source_code, const blend_rule &rule);

    void operator()(uint8_t *target, const uint8_t *source, size_t count) const;

    // Many rows, one every `stride` bytes, of bitmaps that do not overlap.
    void box(uint8_t *target, uint64_t target_stride, const uint8_t *source, uint64_t source_stride, size_t width,
             size_t height) const;

private:
    enum class way { copy, select, convert, direct, by_channels, by_fields };

    way choose() const;
    void blend_run(uint8_t *target, const uint8_t *source, size_t count) const;
    void mix_channels(uint8_t *target, const uint8_t *source, size_t count) const;
    void mix_fields(uint8_t *target, const uint8_t *source, size_t count) const;

    uint32_t target_code_;
    uint32_t source_code_;
    uint32_t target_bytes_;
    uint32_t source_bytes_;
    blend_rule rule_;
    way way_;
    direct_mix mix_{};
    direct_mixer mixer_ = nullptr;
};

} // namespace kestal
