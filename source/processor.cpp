#include "processor.hpp"

#if defined(__x86_64__)
#include <cpuid.h>
#elif defined(__aarch64__)
#include <sys/auxv.h>
#endif

namespace kestal::processor {

namespace {

#if defined(__x86_64__)

struct leaf {
    uint32_t a = 0, b = 0, c = 0, d = 0;
};

leaf read_leaf(uint32_t number)
{
    leaf words;
    if (__get_cpuid_count(number, 0, &words.a, &words.b, &words.c, &words.d) == 0)
        return {};
    return words;
}

// The register sets that the system saves when it switches threads.
uint32_t saved_states(const leaf &basic)
{
    constexpr uint32_t osxsave = 1u << 27;
    if ((basic.c & osxsave) == 0)
        return 0;
    uint32_t low, high;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low;
}

uint32_t detect()
{
    const leaf basic = read_leaf(1);
    const leaf extended = read_leaf(7);
    const uint32_t saved = saved_states(basic);
    const auto all_of = [](uint32_t word, uint32_t bits) { return (word & bits) == bits; };

    const bool shuffles = all_of(basic.c, 1u << 9 | 1u << 19);               // SSSE3, SSE4.1
    const bool wide = all_of(saved, 0x06) && all_of(extended.b, 1u << 5);    // AVX2
    const bool widest = all_of(saved, 0xE6) && all_of(extended.b, 1u << 16); // AVX-512F

    uint32_t found = 0;
    if (shuffles)
        found |= ssse3;
    if (shuffles && wide)
        found |= avx2;
    if (shuffles && all_of(basic.c, 1u << 1))
        found |= pclmul;
    if (shuffles && all_of(basic.c, 1u << 25))
        found |= aes;
    if (shuffles && all_of(extended.b, 1u << 29))
        found |= sha;
    if (shuffles && widest && all_of(basic.c, 1u << 1) && all_of(extended.c, 1u << 10))
        found |= vpclmul;
    return found;
}

#elif defined(__aarch64__)

uint32_t detect()
{
    const unsigned long present = getauxval(AT_HWCAP);
    uint32_t found = 0;
    if ((present & 1u << 3) != 0)
        found |= arm_aes;
    if ((present & 1u << 4) != 0)
        found |= arm_pmull;
    if ((present & 1u << 5) != 0)
        found |= arm_sha1;
    if ((present & 1u << 6) != 0)
        found |= arm_sha2;
    return found;
}

#else

uint32_t detect()
{
    return 0;
}

#endif

} // namespace

constinit std::atomic<uint32_t> usable{0};

uint32_t allow_only(uint32_t features)
{
    // A bit that no feature has tells "none" from "not asked yet".
    const uint32_t found = (detect() & features) | ~every_feature;
    usable.store(found, std::memory_order_relaxed);
    return found;
}

} // namespace kestal::processor
