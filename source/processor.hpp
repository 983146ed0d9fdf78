// Which instructions beyond the architecture's baseline this machine has: asked once, at run time, so that one build
// serves them all. Portable code stands beside every path chosen by it.
#pragma once

#include <atomic>
#include <stdint.h>

namespace kestal::processor {

// What a path needs, complete: registers that the system does not save count as missing.
enum feature : uint32_t {
    ssse3 = 1u << 0,     // x86: byte shuffles, with SSE4.1
    avx2 = 1u << 1,      // x86: 256-bit integers
    pclmul = 1u << 2,    // x86: carry-less multiplication, with SSE4.1
    sha = 1u << 3,       // x86: SHA-1 and SHA-256 rounds, with SSE4.1
    vpclmul = 1u << 4,   // x86: 512-bit carry-less multiplication
    arm_pmull = 1u << 5, // AArch64: carry-less multiplication
    arm_sha1 = 1u << 6,  // AArch64: SHA-1 rounds
    arm_sha2 = 1u << 7,  // AArch64: SHA-256 rounds
    aes = 1u << 8,       // x86: AES rounds, with SSE4.1
    arm_aes = 1u << 9,   // AArch64: AES rounds
};

constexpr uint32_t every_feature = ~(1u << 31);

// From now on the library uses no other features than these, of those that the machine has: lets tests run every path.
// Returns them.
uint32_t allow_only(uint32_t features);

// What may be used, once that was asked for; 0 before.
extern constinit std::atomic<uint32_t> usable;

// Whether the library may use the feature here. Threads that ask at the same time find the same.
inline bool has(feature wanted)
{
    uint32_t features = usable.load(std::memory_order_relaxed);
    if (features == 0)
        features = allow_only(every_feature);
    return (features & wanted) != 0;
}

} // namespace kestal::processor
