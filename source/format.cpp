#include <kestal_ulx/format.h>

#include <kestal_ulx/memory.h>

#include <algorithm>
#include <array>
#include <bit>
#include <string.h>
#include <type_traits>

namespace {

constexpr size_t longest_number = 22;      // digits of 64 bits, octal
constexpr size_t longest_double = 309;     // digits of the largest double
constexpr uint32_t pointer_digits = 16;    // also where pointers are shorter
constexpr uint32_t limit_of_tens = 308;    // the largest power of ten that is a double
constexpr size_t first_try = 512;          // characters; most texts fit
constexpr uint32_t limb_base = 1000000000; // nine decimal digits
constexpr char lower_digits[] = "0123456789abcdef";
constexpr char upper_digits[] = "0123456789ABCDEF";

constexpr auto digit_pairs = [] {
    std::array<char, 200> pairs{};
    for (size_t value = 0; value < 100; ++value) {
        pairs[2 * value] = static_cast<char>('0' + value / 10);
        pairs[2 * value + 1] = static_cast<char>('0' + value % 10);
    }
    return pairs;
}();

// Those that a double holds exactly.
constexpr auto powers_of_ten = [] {
    std::array<double, 23> powers{1};
    for (size_t exponent = 1; exponent < powers.size(); ++exponent)
        powers[exponent] = powers[exponent - 1] * 10;
    return powers;
}();

// Where the text goes: stores what fits before the NUL, and counts what does not.
class writer {
public:
    writer(char *buffer, uint64_t size) : start_(buffer), next_(buffer), end_(buffer + room(size)) {}

    void put(char character)
    {
        if (next_ < end_)
            *next_++ = character;
        else
            ++lost_;
    }

    void fill(char character, uint64_t count)
    {
        const size_t fitting = clip(count);
        if (fitting == 0)
            return;
        memset(next_, character, fitting);
        next_ += fitting;
    }

    void copy(const char *bytes, size_t length)
    {
        const size_t fitting = clip(length);
        if (fitting == 0)
            return;
        memcpy(next_, bytes, fitting);
        next_ += fitting;
    }

    // Ends the text; returns the length that it has, or would have in a larger buffer.
    uint64_t finish()
    {
        *next_ = '\0';
        return static_cast<uint64_t>(next_ - start_) + lost_;
    }

private:
    // An unlimited size ends where the address space does: no pointer sum may wrap.
    size_t room(uint64_t size) const
    {
        const uintptr_t to_the_end = UINTPTR_MAX - reinterpret_cast<uintptr_t>(start_);
        return static_cast<size_t>(std::min<uint64_t>({size - 1, to_the_end, PTRDIFF_MAX}));
    }

    size_t clip(uint64_t count)
    {
        const size_t left = static_cast<size_t>(end_ - next_);
        if (count <= left)
            return static_cast<size_t>(count);
        lost_ += count - left;
        return left;
    }

    char *start_;
    char *next_;
    char *end_;
    uint64_t lost_ = 0;
};

// An argument list that is a function's parameter (there an array type is a pointer): taken from where it stands.
using list_parameter = std::decay_t<va_list>;

class arguments {
public:
    explicit arguments(list_parameter &list) : list_(list) {}

    template <typename T>
    T next()
    {
        return va_arg(list_, T);
    }
    int64_t next_signed(bool is_long) { return is_long ? next<int64_t>() : next<int32_t>(); }
    uint64_t next_unsigned(bool is_long) { return is_long ? next<uint64_t>() : next<uint32_t>(); }

private:
    list_parameter &list_;
};

// What stands between a "%" and its conversion character.
struct field {
    bool left = false;
    bool point_first = false;
    bool zero = false;
    bool has_width = false;
    bool has_precision = false;
    uint32_t longs = 0;
    uint32_t width = 0;
    uint32_t precision = 0;

    uint64_t padding(uint64_t length) const { return width > length ? width - length : 0; }
};

bool accept(const char *&format, char character)
{
    if (*format != character)
        return false;
    ++format;
    return true;
}

bool is_digit(char character)
{
    return character >= '0' && character <= '9';
}

uint32_t parse_number(const char *&format)
{
    uint64_t number = 0;
    for (; is_digit(*format); ++format)
        number = std::min<uint64_t>(number * 10 + static_cast<uint64_t>(*format - '0'), INT32_MAX);
    return static_cast<uint32_t>(number);
}

void parse_width(const char *&format, arguments &list, field &how)
{
    if (accept(format, '*')) {
        const int64_t width = list.next<int32_t>();
        how.left |= width < 0;
        how.width = static_cast<uint32_t>(width < 0 ? -width : width);
        how.has_width = true;
    } else if (is_digit(*format)) {
        how.width = parse_number(format);
        how.has_width = true;
    }
}

field parse_field(const char *&format, arguments &list)
{
    field how;
    if (*format < 'A') { // all but "l" stand before the letters
        accept(format, '#');
        how.left = accept(format, '-');
        how.point_first = accept(format, '.');
        how.zero = accept(format, '0');
        parse_width(format, list, how);
        how.has_precision = accept(format, '.');
        if (how.has_precision)
            how.precision = parse_number(format);
    }
    while (how.longs < 2 && accept(format, 'l'))
        ++how.longs;
    return how;
}

// Writes the digits so that the last one stands before `end`, and returns the first.
char *write_decimal(char *end, uint64_t value)
{
    while (value > UINT32_MAX) {
        end -= 2;
        memcpy(end, &digit_pairs[static_cast<size_t>(value % 100 * 2)], 2);
        value /= 100;
    }
    uint32_t rest = static_cast<uint32_t>(value);
    while (rest >= 100) {
        end -= 2;
        memcpy(end, &digit_pairs[rest % 100 * 2], 2);
        rest /= 100;
    }
    if (rest < 10) {
        *--end = static_cast<char>('0' + rest);
        return end;
    }
    end -= 2;
    memcpy(end, &digit_pairs[rest * 2], 2);
    return end;
}

// write_decimal for a base of 2 to the power `bits`.
char *write_binary(char *end, uint64_t value, unsigned bits, const char *digits)
{
    do {
        *--end = digits[value & ((1u << bits) - 1)];
        value >>= bits;
    } while (value != 0);
    return end;
}

void put_number(writer &out, const field &how, bool negative, const char *digits, const char *end)
{
    const auto length = static_cast<size_t>(end - digits);
    const uint64_t padding = how.padding(length + (negative ? 1 : 0));
    if (!how.zero && !how.left)
        out.fill(' ', padding);
    if (negative)
        out.put('-');
    if (how.zero)
        out.fill('0', padding);
    out.copy(digits, length);
    if (how.left && !how.zero)
        out.fill(' ', padding);
}

void put_decimal(writer &out, const field &how, bool negative, uint64_t magnitude)
{
    char digits[longest_number];
    char *end = digits + sizeof digits;
    put_number(out, how, negative, write_decimal(end, magnitude), end);
}

void put_signed(writer &out, const field &how, int64_t value)
{
    const auto bits = static_cast<uint64_t>(value);
    put_decimal(out, how, value < 0, value < 0 ? 0 - bits : bits);
}

void put_binary(writer &out, const field &how, uint64_t value, unsigned bits, const char *alphabet)
{
    char digits[longest_number];
    char *end = digits + sizeof digits;
    put_number(out, how, false, write_binary(end, value, bits, alphabet), end);
}

void put_pointer(writer &out, const void *pointer, const char *alphabet)
{
    field how;
    how.zero = true;
    how.width = pointer_digits;
    put_binary(out, how, reinterpret_cast<uintptr_t>(pointer), 4, alphabet);
}

void put_text(writer &out, const field &how, const char *text)
{
    if (text == nullptr)
        text = "(null)";
    const size_t length = how.point_first ? strnlen(text, how.width) : strlen(text);
    const uint64_t padding = how.padding(length);
    if (!how.left)
        out.fill(' ', padding);
    out.copy(text, length);
    if (how.left)
        out.fill(' ', padding);
}

// The decimal digits of a double that is a whole number, zero or above.
class whole_digits {
public:
    explicit whole_digits(double whole)
    {
        if (whole < 0x1p64)
            begin_ = write_decimal(digits_ + sizeof digits_, static_cast<uint64_t>(whole));
        else
            expand(std::bit_cast<uint64_t>(whole));
    }

    const char *begin() const { return begin_; }
    const char *end() const { return digits_ + sizeof digits_; }
    size_t length() const { return static_cast<size_t>(end() - begin_); }

private:
    // Shifts the 53 bits of the significand up to their place, in limbs of nine decimal digits, lowest first.
    void expand(uint64_t image)
    {
        const uint64_t hidden_bit = uint64_t{1} << 52;
        const uint64_t significand = (image & (hidden_bit - 1)) | hidden_bit;
        uint32_t limbs[longest_double / 9 + 1] = {static_cast<uint32_t>(significand % limb_base),
                                                  static_cast<uint32_t>(significand / limb_base)};
        size_t count = 2;
        uint32_t shift = static_cast<uint32_t>(image >> 52) - 1075;
        while (shift > 0) {
            const uint32_t step = std::min(shift, 29u);
            uint64_t carry = 0;
            for (size_t i = 0; i < count; ++i) {
                carry += uint64_t{limbs[i]} << step;
                limbs[i] = static_cast<uint32_t>(carry % limb_base);
                carry /= limb_base;
            }
            if (carry > 0)
                limbs[count++] = static_cast<uint32_t>(carry);
            shift -= step;
        }
        write_limbs(limbs, count);
    }

    void write_limbs(const uint32_t *limbs, size_t count)
    {
        memset(digits_, '0', sizeof digits_);
        char *place = digits_ + sizeof digits_;
        for (size_t i = 0; i + 1 < count; ++i, place -= 9)
            write_decimal(place, limbs[i]);
        begin_ = write_decimal(place, limbs[count - 1]);
    }

    char digits_[longest_double];
    char *begin_;
};

double power_of_ten(uint32_t exponent)
{
    constexpr uint32_t largest = powers_of_ten.size() - 1;
    double power = 1;
    for (; exponent > largest; exponent -= largest)
        power *= powers_of_ten[largest];
    return power * powers_of_ten[exponent];
}

// The fraction has `count` digits: first the `scale` digits of the whole number `scaled`.
void put_fraction(writer &out, double scaled, uint32_t scale, uint32_t count)
{
    const whole_digits digits(scaled);
    out.put('.');
    if (digits.length() <= scale) {
        out.fill('0', scale - digits.length());
        out.copy(digits.begin(), digits.length());
    } else {
        out.fill('9', scale); // the product was rounded up to the next whole
    }
    out.fill('0', count - scale);
}

uint32_t fraction_digits(const field &how)
{
    if (how.point_first)
        return how.width;
    if (how.has_precision)
        return how.precision;
    return how.has_width ? 0 : 6;
}

void put_double(writer &out, field how, double value)
{
    const bool negative = __builtin_signbit(value);
    double magnitude = negative ? -value : value;
    const uint32_t count = fraction_digits(how);
    if (how.point_first) {
        how.point_first = false;
        how.width = 0;
    }
    if (__builtin_isnan(value))
        return put_text(out, how, "nan");
    if (__builtin_isinf(value))
        return put_text(out, how, negative ? "-inf" : "inf");

    const uint32_t scale = std::min(count, limit_of_tens);
    const double power = power_of_ten(scale);
    double whole = magnitude;
    if (magnitude < 0x1p52) { // from here on there is nothing behind the point, and nothing to round
        magnitude += 0.5 / power;
        whole = static_cast<double>(static_cast<int64_t>(magnitude));
    }
    const whole_digits digits(whole);
    put_number(out, how, negative, digits.begin(), digits.end());
    if (count > 0)
        put_fraction(out, (magnitude - whole) * power, scale, count);
}

void put_conversion(writer &out, const field &how, char conversion, arguments &list)
{
    const bool is_long = how.longs > 0;
    switch (conversion) {
    case 'd':
    case 'i':
        return put_signed(out, how, list.next_signed(is_long));
    case 'u':
        return put_decimal(out, how, false, list.next_unsigned(is_long));
    case 'o':
        return put_binary(out, how, list.next_unsigned(is_long), 3, lower_digits);
    case 'x':
        return put_binary(out, how, list.next_unsigned(is_long), 4, lower_digits);
    case 'X':
        return put_binary(out, how, list.next_unsigned(is_long), 4, upper_digits);
    case 'c':
        return out.put(static_cast<char>(list.next_signed(is_long)));
    case 's':
        return put_text(out, how, list.next<const char *>());
    case 'p':
        return put_pointer(out, list.next<const void *>(), lower_digits);
    case 'P':
        return put_pointer(out, list.next<const void *>(), upper_digits);
    case 'f':
        if (how.longs == 0)
            put_double(out, how, list.next<double>());
        else if (how.longs == 1)
            put_double(out, how, static_cast<double>(list.next<long double>()));
        return;
    default:
        return out.put(conversion);
    }
}

// Formats what fits and returns the length of the whole text. The list is used up.
uint64_t format_text(char *buffer, uint64_t size, const char *format, va_list parameter)
{
    writer out(buffer, size);
    arguments list(parameter);
    while (*format != '\0') {
        if (*format != '%') {
            const char *run = format;
            while (*format != '\0' && *format != '%')
                ++format;
            out.copy(run, static_cast<size_t>(format - run));
            continue;
        }
        const field how = parse_field(++format, list);
        if (*format == '\0')
            break;
        put_conversion(out, how, *format++, list);
    }
    return out.finish();
}

} // namespace

uint64_t kestal_vsnprintf(char *buffer, uint64_t size, const char *format, va_list list)
{
    if (buffer == nullptr || size == 0)
        return 0;
    return std::min(format_text(buffer, size, format == nullptr ? "" : format, list), size - 1);
}

uint64_t kestal_snprintf(char *buffer, uint64_t size, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const uint64_t stored = kestal_vsnprintf(buffer, size, format, list);
    va_end(list);
    return stored;
}

uint64_t kestal_vsprintf(char *buffer, const char *format, va_list list)
{
    return kestal_vsnprintf(buffer, UINT64_MAX, format, list);
}

uint64_t kestal_sprintf(char *buffer, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const uint64_t stored = kestal_vsprintf(buffer, format, list);
    va_end(list);
    return stored;
}

char *kestal_alloc_vsprintf(const char *format, va_list list)
{
    if (format == nullptr)
        return nullptr;
    va_list again;
    va_copy(again, list);
    char text[first_try];
    const uint64_t length = format_text(text, sizeof text, format, list);
    char *block = nullptr;
    if (length <= KESTAL_ALLOC_FORMAT_LIMIT)
        block = static_cast<char *>(kestal_alloc_tag(length + 1, __func__, __LINE__));
    if (block != nullptr && length < sizeof text)
        memcpy(block, text, static_cast<size_t>(length) + 1);
    else if (block != nullptr)
        format_text(block, length + 1, format, again);
    va_end(again);
    return block;
}

char *kestal_alloc_sprintf(const char *format, ...)
{
    va_list list;
    va_start(list, format);
    char *text = kestal_alloc_vsprintf(format, list);
    va_end(list);
    return text;
}

char *kestal_realloc_vsprintf(char *old, const char *format, va_list list)
{
    char *text = kestal_alloc_vsprintf(format, list);
    kestal_check_free(old);
    return text;
}

char *kestal_realloc_sprintf(char *old, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    char *text = kestal_realloc_vsprintf(old, format, list);
    va_end(list);
    return text;
}
