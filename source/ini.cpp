#include <kestal_ulx/ini.h>

#include "guard.hpp"
#include "set_field.hpp"

#include <kestal_ulx/file.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/text.h>

#include <algorithm>
#include <string.h>
#include <string_view>

namespace {

using kestal::owned_descriptor;
using std::string_view;

constexpr uint64_t least_room = 256;
constexpr size_t chunk_size = 4096;
constexpr string_view byte_order_mark = "\xEF\xBB\xBF";

// A section that was entered; its name stands behind the record.
struct section_name {
    section_name *next;

    char *text() { return reinterpret_cast<char *>(this + 1); }
};

string_view from(string_view text, size_t at)
{
    return {text.data() + at, text.size() - at};
}

string_view up_to(string_view text, size_t at)
{
    return {text.data(), std::min(at, text.size())};
}

bool is_space(char character)
{
    return character == ' ' || (character >= '\t' && character <= '\r');
}

string_view trimmed(string_view text)
{
    while (!text.empty() && is_space(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && is_space(text.back()))
        text.remove_suffix(1);
    return text;
}

string_view without_comment(string_view value)
{
    for (size_t at = 1; at < value.size(); ++at)
        if ((value[at] == ';' || value[at] == '#') && is_space(value[at - 1]))
            return trimmed(up_to(value, at));
    return value;
}

// How a quoted part goes on behind its opening quote.
struct quoted_part {
    string_view content; // as written
    string_view rest;    // behind the closing quote
};

quoted_part read_quoted(string_view text, char quote)
{
    size_t end = 0;
    while (end < text.size() && text[end] != quote)
        end += quote == '"' && text[end] == '\\' ? 2u : 1u;
    return {up_to(text, end), end < text.size() ? from(text, end + 1) : string_view()};
}

// Copies a quoted part as it is meant and returns the place behind it.
char *copy_quoted(string_view content, char quote, char *place)
{
    for (size_t at = 0; at < content.size(); ++at) {
        if (quote == '"' && content[at] == '\\' && at + 1 < content.size())
            ++at;
        *place++ = content[at];
    }
    return place;
}

} // namespace

struct kestal_ini {
    uint32_t flags;
    bool failed;
    bool begun; // the first line is over
    uint64_t limit;
    uint64_t taken;
    char *line; // what has come of a line, or of a list of parameters, so far
    size_t line_length;
    size_t line_room;
    section_name *sections; // the newest first, which is the one reached
    kestal_ini_entry_t *first;
    kestal_ini_entry_t *last;
};

namespace {

bool enter_section(kestal_ini_t &ini, string_view name)
{
    auto *section = static_cast<section_name *>(
        kestal_alloc_tag(sizeof(section_name) + name.size() + 1, "kestal_push_ini", __LINE__));
    if (section == nullptr)
        return false;
    section->next = ini.sections;
    *std::ranges::copy(name, section->text()).out = '\0';
    ini.sections = section;
    return true;
}

// Adds an entry; a `quote` other than 0 surrounded the value.
bool add_entry(kestal_ini_t &ini, string_view name, string_view value, char quote)
{
    if (name.empty())
        return true;
    auto *entry = static_cast<kestal_ini_entry_t *>(
        kestal_alloc_tag(sizeof(kestal_ini_entry_t) + name.size() + value.size() + 2, "kestal_push_ini", __LINE__));
    if (entry == nullptr)
        return false;
    char *name_copy = reinterpret_cast<char *>(entry + 1);
    char *value_copy = std::ranges::copy(name, name_copy).out;
    *value_copy++ = '\0';
    *copy_quoted(value, quote, value_copy) = '\0';
    *entry = {.m_previous = ini.last,
              .m_next = nullptr,
              .m_section = ini.sections == nullptr ? "" : ini.sections->text(),
              .m_name = name_copy,
              .m_value = value_copy};
    (ini.last == nullptr ? ini.first : ini.last->m_next) = entry;
    ini.last = entry;
    return true;
}

bool take_line(kestal_ini_t &ini, string_view line)
{
    if (!ini.begun && line.starts_with(byte_order_mark))
        line.remove_prefix(byte_order_mark.size());
    ini.begun = true;
    line = trimmed(up_to(line, line.find('\0')));
    if (line.empty() || line.front() == ';' || line.front() == '#')
        return true;
    if (line.front() == '[') {
        const size_t end = line.find(']');
        return end == string_view::npos || enter_section(ini, trimmed({line.data() + 1, end - 1}));
    }
    const size_t equals = line.find('=');
    if (equals == string_view::npos)
        return add_entry(ini, without_comment(line), "", 0);
    const string_view name = trimmed(up_to(line, equals));
    const string_view value = trimmed(from(line, equals + 1));
    if (value.starts_with('"') || value.starts_with('\''))
        return add_entry(ini, name, read_quoted(from(value, 1), value.front()).content, value.front());
    return add_entry(ini, name, without_comment(value), 0);
}

bool take_parameters(kestal_ini_t &ini, string_view list)
{
    list = up_to(list, list.find('\0'));
    while (!list.empty()) {
        const size_t name_end = std::min(list.find_first_of("=,"), list.size());
        const string_view name = trimmed(up_to(list, name_end));
        string_view value;
        char quote = 0;
        list = from(list, name_end);
        if (list.starts_with('=')) {
            do
                list.remove_prefix(1);
            while (!list.empty() && is_space(list.front()));
            if (list.starts_with('"')) {
                quote = '"';
                const quoted_part part = read_quoted(from(list, 1), quote);
                value = part.content;
                list = part.rest;
            }
        }
        const size_t comma = std::min(list.find(','), list.size());
        if (quote == 0)
            value = trimmed(up_to(list, comma));
        if (!add_entry(ini, name, value, quote))
            return false;
        list = from(list, std::min(comma + 1, list.size()));
    }
    return true;
}

void release_line(kestal_ini_t &ini)
{
    if (ini.line == nullptr)
        return;
    explicit_bzero(ini.line, ini.line_room);
    ini.line = static_cast<char *>(kestal_free_tag(ini.line, "kestal_push_ini", __LINE__));
    ini.line_length = ini.line_room = 0;
}

bool keep_for_later(kestal_ini_t &ini, string_view piece)
{
    if (piece.size() > ini.line_room - ini.line_length) {
        const size_t length = ini.line_length;
        const size_t room = std::max({2 * ini.line_room, length + piece.size(), static_cast<size_t>(least_room)});
        auto *line = static_cast<char *>(kestal_alloc_tag(room, "kestal_push_ini", __LINE__));
        if (line == nullptr)
            return false;
        std::ranges::copy(string_view(ini.line, length), line);
        release_line(ini);
        ini.line = line;
        ini.line_length = length;
        ini.line_room = room;
    }
    std::ranges::copy(piece, ini.line + ini.line_length);
    ini.line_length += piece.size();
    return true;
}

// Takes what is kept as a whole line, or list.
bool take_kept(kestal_ini_t &ini)
{
    const string_view kept(ini.line, ini.line_length);
    ini.line_length = 0;
    return (ini.flags & KESTAL_INI_PARAMETER_LIST) != 0 ? take_parameters(ini, kept) : take_line(ini, kept);
}

bool take(kestal_ini_t &ini, string_view text)
{
    if (ini.limit != 0 && text.size() > ini.limit - std::min(ini.taken, ini.limit))
        return false;
    ini.taken += text.size();
    while ((ini.flags & KESTAL_INI_PARAMETER_LIST) == 0) {
        // The LF of a CR LF ends an empty line, which counts for nothing.
        const size_t end = text.find_first_of("\r\n");
        if (end == string_view::npos)
            break;
        const string_view piece = up_to(text, end);
        const bool is_whole = ini.line_length == 0;
        if (is_whole ? !take_line(ini, piece) : !keep_for_later(ini, piece) || !take_kept(ini))
            return false;
        text = from(text, end + 1);
    }
    return text.empty() || keep_for_later(ini, text);
}

int32_t outcome(kestal_ini_t &ini, bool succeeded)
{
    ini.failed = !succeeded;
    return succeeded ? 0 : -1;
}

bool push_file(kestal_ini_t &ini, const char *path)
{
    const owned_descriptor file(kestal_open_file(path, KESTAL_FILE_READ, 0));
    if (file.get() < 0)
        return false;
    char chunk[chunk_size];
    int64_t count;
    while ((count = kestal_read_file(file.get(), chunk, sizeof chunk, -1)) > 0)
        if (kestal_push_ini(&ini, chunk, static_cast<uint64_t>(count)) != 0)
            break;
    explicit_bzero(chunk, sizeof chunk);
    return count == 0 && kestal_end_ini(&ini) == 0;
}

} // namespace

kestal_ini_t *kestal_open_ini_ex(uint32_t flags)
{
    auto *ini = static_cast<kestal_ini_t *>(kestal_calloc(1, sizeof(kestal_ini_t)));
    if (ini == nullptr)
        return nullptr;
    ini->flags = flags;
    ini->limit = KESTAL_INI_LIMIT;
    return ini;
}

kestal_ini_t *kestal_open_ini(void)
{
    return kestal_open_ini_ex(0);
}

kestal_ini_t *kestal_close_ini(kestal_ini_t *ini)
{
    if (ini == nullptr)
        return nullptr;
    while (kestal_ini_entry_t *entry = ini->first) {
        ini->first = entry->m_next;
        explicit_bzero(entry, static_cast<size_t>(entry->m_value + strlen(entry->m_value) -
                                                  reinterpret_cast<const char *>(entry)));
        kestal_free(entry);
    }
    while (section_name *section = ini->sections) {
        ini->sections = section->next;
        kestal_free(section);
    }
    release_line(*ini);
    return static_cast<kestal_ini_t *>(kestal_free(ini));
}

int32_t kestal_set_ini_limit(kestal_ini_t *ini, uint64_t bytes)
{
    return kestal::set_field(ini, &kestal_ini::limit, bytes);
}

int32_t kestal_push_ini(kestal_ini_t *ini, const void *data, uint64_t size)
{
    if (ini == nullptr || ini->failed || (data == nullptr && size != 0))
        return -1;
    return outcome(*ini, take(*ini, {static_cast<const char *>(data), static_cast<size_t>(size)}));
}

int32_t kestal_push_ini_string(kestal_ini_t *ini, const char *text)
{
    return kestal_push_ini(ini, text, text == nullptr ? 0 : strlen(text));
}

int32_t kestal_end_ini(kestal_ini_t *ini)
{
    if (ini == nullptr || ini->failed)
        return -1;
    return outcome(*ini, take_kept(*ini));
}

kestal_ini_t *kestal_load_ini(const char *path)
{
    kestal_ini_t *ini = path == nullptr ? nullptr : kestal_open_ini();
    return ini == nullptr || push_file(*ini, path) ? ini : kestal_close_ini(ini);
}

kestal_ini_t *kestal_parse_ini_parameters(const char *text)
{
    kestal_ini_t *ini = kestal_open_ini_ex(KESTAL_INI_PARAMETER_LIST);
    return kestal_push_ini_string(ini, text) == 0 && kestal_end_ini(ini) == 0 ? ini : kestal_close_ini(ini);
}

const kestal_ini_entry_t *kestal_search_ini_entry(const kestal_ini_t *ini, const char *section, const char *name)
{
    if (ini == nullptr || name == nullptr)
        return nullptr;
    const kestal_ini_entry_t *entry = ini->last;
    while (entry != nullptr && (kestal_compare_ignore_case(entry->m_name, name) != 0 ||
                                kestal_compare_ignore_case(entry->m_section, section) != 0))
        entry = entry->m_previous;
    return entry;
}

const char *kestal_search_ini_value(const kestal_ini_t *ini, const char *section, const char *name)
{
    const kestal_ini_entry_t *entry = kestal_search_ini_entry(ini, section, name);
    return entry == nullptr ? nullptr : entry->m_value;
}

const kestal_ini_entry_t *kestal_first_ini_entry(const kestal_ini_t *ini)
{
    return ini == nullptr ? nullptr : ini->first;
}
