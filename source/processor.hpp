// Which instructions beyond the architecture's baseline this machine has: asked once, at run time, so that one build
// serves them all. Portable code stands beside every path chosen by it.
#pragma once

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
};

constexpr uint32_t every_feature = ~(1u << 31);

// Whether the library may use the feature here.
bool has(feature wanted);

// From now on the library uses no other features than these: lets tests run every path.
void allow_only(uint32_t features);

} // namespace kestal::processor
