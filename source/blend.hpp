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

// Lays rows over rows of the same length. Both formats have 8, 16, 24 or 32 bits. Channels are mixed at 8 bits:
// (source x alpha + target x (255 - alpha)) / 255, rounded; what has no channels to mix is copied from alpha 128 on.
class row_blender {
public:
    row_blender(uint32_t target_code, uint32_t source_code, const blend_rule &rule);

    void operator()(uint8_t *target, const uint8_t *source, size_t count) const;

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
};

} // namespace kestal
