#include <kestal_ulx/text.h>

#include <kestal_ulx/memory.h>

#include <string.h>
#include <string_view>
#include <utility>

namespace {

constexpr char white_space[] = " \t\n\v\f\r";

bool is_one_of(char character, const char *set)
{
    return character != '\0' && strchr(set, character) != nullptr;
}

int lower_case(char character)
{
    const int value = static_cast<unsigned char>(character);
    return value >= 'A' && value <= 'Z' ? value + ('a' - 'A') : value;
}

bool is_quote(char character)
{
    return character == '"' || character == '\'';
}

// What a byte of a word is: a plain part of it, a part that ends no word, or a mark that is left out of it.
enum class role { plain, kept, mark };

// Follows a word, byte by byte, under its flags.
class word_reader {
public:
    explicit word_reader(uint32_t flags)
        : quotes_((flags & KESTAL_WORD_QUOTES) != 0), escapes_((flags & KESTAL_WORD_ESCAPES) != 0)
    {}

    role next(const char *at)
    {
        if (std::exchange(escaped_, false))
            return role::kept;
        escaped_ = escapes_ && *at == '\\' && at[1] != '\0';
        if (escaped_)
            return role::mark;
        if (quotes_ && (quote_ == '\0' ? is_quote(*at) : *at == quote_)) {
            quote_ = quote_ == '\0' ? *at : '\0';
            return role::mark;
        }
        return quote_ == '\0' ? role::plain : role::kept;
    }

private:
    bool quotes_, escapes_, escaped_ = false;
    char quote_ = '\0'; // the quote to be closed
};

const char *end_of_word(const char *at, const char *separators, uint32_t flags)
{
    word_reader reader(flags);
    while (*at != '\0' && !(reader.next(at) == role::plain && is_one_of(*at, separators)))
        ++at;
    return at;
}

// Writes the word without its marks, terminated.
void copy_word(char *to, const char *from, uint64_t length, uint32_t flags)
{
    word_reader reader(flags);
    for (const char *end = from + length; from < end; ++from)
        if (reader.next(from) != role::mark)
            *to++ = *from;
    *to = '\0';
}

// Greedy: on a mismatch the last "*" takes one byte more.
bool matches(std::string_view pattern, std::string_view text, bool match_case)
{
    constexpr size_t none = SIZE_MAX;
    size_t at = 0, in = 0, after_star = none, star_text = 0;
    const auto is_same = [&](char left, char right) {
        return match_case ? left == right : lower_case(left) == lower_case(right);
    };
    while (in < text.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            after_star = ++at;
            star_text = in;
            continue;
        }
        if (at < pattern.size()) {
            const size_t literal = at + (pattern[at] == '\\' && at + 1 < pattern.size() ? 1 : 0);
            if ((literal == at && pattern[at] == '?') || is_same(pattern[literal], text[in])) {
                at = literal + 1;
                ++in;
                continue;
            }
        }
        if (after_star == none)
            return false;
        at = after_star;
        in = ++star_text;
    }
    while (at < pattern.size() && pattern[at] == '*')
        ++at;
    return at == pattern.size();
}

std::string_view view(const char *text)
{
    return text == nullptr ? std::string_view() : std::string_view(text);
}

} // namespace

const char *kestal_get_word(const char **cursor, const char *separators, uint32_t flags, uint64_t *length)
{
    if (length != nullptr)
        *length = 0;
    if (cursor == nullptr || *cursor == nullptr || length == nullptr)
        return nullptr;
    if (separators == nullptr)
        separators = white_space;
    const bool may_be_empty = (flags & KESTAL_WORD_EMPTY) != 0;
    const char *word = *cursor;
    if (!may_be_empty)
        word += strspn(word, separators);
    const char *end = end_of_word(word, separators, flags);
    *length = static_cast<uint64_t>(end - word);
    if (may_be_empty)
        *cursor = *end == '\0' ? nullptr : end + 1;
    else
        *cursor = end;
    return may_be_empty || end != word ? word : nullptr;
}

char *kestal_alloc_word_tag(const char **cursor, const char *separators, uint32_t flags, const char *name,
                            uint64_t line)
{
    if (cursor == nullptr)
        return nullptr;
    const char *next = *cursor;
    uint64_t length = 0;
    const char *word = kestal_get_word(&next, separators, flags, &length);
    char *copy = word == nullptr ? nullptr : static_cast<char *>(kestal_alloc_tag(length + 1, name, line));
    if (copy != nullptr)
        copy_word(copy, word, length, flags);
    if (word == nullptr || copy != nullptr)
        *cursor = next;
    return copy;
}

kestal_word_t *kestal_new_word_list(const char *text, const char *separators, uint32_t flags)
{
    kestal_word_t *head = nullptr;
    kestal_word_t **link = &head;
    uint64_t length = 0;
    while (const char *word = kestal_get_word(&text, separators, flags, &length)) {
        auto *node = static_cast<kestal_word_t *>(kestal_alloc(sizeof(kestal_word_t) + length + 1));
        if (node == nullptr)
            return kestal_free_word_list(head);
        node->m_next = nullptr;
        node->m_text = reinterpret_cast<char *>(node + 1);
        copy_word(node->m_text, word, length, flags);
        *link = node;
        link = &node->m_next;
    }
    return head;
}

kestal_word_t *kestal_free_word_list(kestal_word_t *head)
{
    while (head != nullptr) {
        kestal_word_t *next = head->m_next;
        kestal_free(head);
        head = next;
    }
    return nullptr;
}

const char *kestal_skip_space(const char *text)
{
    return text == nullptr ? nullptr : text + strspn(text, white_space);
}

char *kestal_trim_string(char *text)
{
    if (text == nullptr)
        return nullptr;
    const char *from = kestal_skip_space(text);
    size_t length = strlen(from);
    while (length > 0 && is_one_of(from[length - 1], white_space))
        --length;
    memmove(text, from, length);
    text[length] = '\0';
    return text;
}

int32_t kestal_compare_ignore_case(const char *left, const char *right)
{
    left = left == nullptr ? "" : left;
    right = right == nullptr ? "" : right;
    while (*left != '\0' && lower_case(*left) == lower_case(*right)) {
        ++left;
        ++right;
    }
    return lower_case(*left) - lower_case(*right);
}

int32_t kestal_match_wildcard(const char *pattern, const char *text)
{
    return kestal_match_wildcard_ex(pattern, text, 0);
}

int32_t kestal_match_wildcard_ex(const char *pattern, const char *text, uint32_t match_case)
{
    return matches(view(pattern), view(text), match_case != 0) ? 1 : 0;
}

int32_t kestal_match_wildcard_list(const char *patterns, const char *separators, const char *text)
{
    if (separators == nullptr)
        separators = "|";
    uint64_t length = 0;
    // The escapes stay in the pattern: the matcher reads them once more.
    while (const char *pattern = kestal_get_word(&patterns, separators, KESTAL_WORD_ESCAPES, &length))
        if (matches({pattern, static_cast<size_t>(length)}, view(text), false))
            return 1;
    return 0;
}

char *kestal_alloc_basename_tag(const char *path, const char *name, uint64_t line)
{
    const std::string_view whole = view(path);
    size_t end = whole.size();
    while (end > 1 && whole[end - 1] == '/')
        --end;
    size_t begin = end;
    while (begin > 0 && whole[begin - 1] != '/')
        --begin;
    if (begin == end && end > 0) // slashes only: the root
        begin = end - 1;
    return kestal_strndup_tag(whole.data() + begin, end - begin, name, line);
}

char *kestal_comma_string_alloc_tag(uint64_t value, const char *name, uint64_t line)
{
    char digits[sizeof("18,446,744,073,709,551,615")];
    char *first = digits + sizeof(digits) - 1;
    *first = '\0';
    for (int count = 0; value != 0 || count == 0; ++count, value /= 10) {
        if (count > 0 && count % 3 == 0)
            *--first = ',';
        *--first = static_cast<char>('0' + value % 10);
    }
    return kestal_strdup_tag(first, name, line);
}
