// The formatter with any conversion and an argument that fits it, behind any text, into buffers of any size.
#include <kestal_ulx.h>

#include <cstdlib>
#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>

namespace {

template <typename... Arguments>
void format(const std::string &pattern, uint64_t size, Arguments... arguments)
{
    std::vector<char> buffer(size); // exactly: the sanitizer watches its end
    const uint64_t stored = kestal_snprintf(buffer.data(), size, pattern.c_str(), arguments...);
    char *whole = kestal_alloc_sprintf(pattern.c_str(), arguments...);
    if (size == 0 ? stored != 0 : stored >= size || buffer[stored] != '\0')
        abort();
    if (whole != nullptr && stored > 0 && std::memcmp(whole, buffer.data(), stored) != 0)
        abort();
    kestal_check_free(whole);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    std::string pattern;
    for (const char letter : input.ConsumeRandomLengthString(40)) // whatever takes no argument of its own
        if (std::strchr("diuoxXcspPf*", letter) == nullptr)
            pattern += letter;
    pattern += '%';
    for (const char flag : {'#', '-', '.', '0'})
        if (input.ConsumeBool())
            pattern += flag;
    const int32_t width = input.ConsumeIntegralInRange(-70000, 70000);
    const bool star = input.ConsumeBool();
    pattern += star ? "*" : width >= 0 ? std::to_string(width) : "";
    if (input.ConsumeBool())
        pattern += "." + std::to_string(input.ConsumeIntegral<uint8_t>());
    const size_t longs = input.ConsumeIntegralInRange(0u, 3u);
    const char conversion = input.PickValueInArray({'d', 'i', 'u', 'o', 'x', 'X', 'c', 's', 'p', 'P', 'f'});
    pattern += std::string(longs, 'l') + conversion;

    const uint64_t room = input.ConsumeIntegralInRange(0u, 1300u);
    const auto format_with = [&](auto argument) {
        star ? format(pattern, room, width, argument) : format(pattern, room, argument);
    };
    if (std::strchr("spP", conversion) != nullptr)
        format_with(input.ConsumeRandomLengthString().c_str());
    else if (conversion != 'f')
        longs == 0 ? format_with(input.ConsumeIntegral<uint32_t>()) : format_with(input.ConsumeIntegral<uint64_t>());
    else if (const double real = input.ConsumeFloatingPoint<double>(); longs == 0)
        format_with(real);
    else
        format_with(static_cast<long double>(real));
    return 0;
}
