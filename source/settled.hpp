// For chains of sums in which one operand comes late.
#pragma once

namespace kestal {

// Keeps the compiler from regrouping what a value was computed from with what it goes into: an operand that comes late
// is to be added last, so that nothing else waits for it.
template <typename Word>
[[gnu::always_inline]] inline Word settled(Word value)
{
    __asm__("" : "+r"(value));
    return value;
}

} // namespace kestal
