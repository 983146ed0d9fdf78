#include <kestal_ulx/uri.h>

#include <kestal_ulx/memory.h>
#include <kestal_ulx/percent.h>
#include <kestal_ulx/text.h>

#include "uri.hpp"

#include <algorithm>
#include <errno.h>
#include <limits>
#include <string.h>
#include <string_view>

namespace {

using std::string_view;

// A URI in the making.
struct making {
    kestal_uri_t *uri;
    bool is_whole; // no part was left out for want of memory
};

char *copy_of(making &made, string_view part)
{
    char *copy = kestal_strndup_tag(part.data(), part.size(), "kestal_open_uri", 0);
    made.is_whole = made.is_whole && copy != nullptr;
    return copy;
}

char *decoded(making &made, const char *path)
{
    char *copy = kestal_decode_percent_string(path);
    made.is_whole = made.is_whole && copy != nullptr;
    return copy;
}

string_view before(string_view text, size_t at)
{
    return {text.data(), at};
}

string_view behind(string_view text, size_t at)
{
    return {text.data() + at + 1, text.size() - at - 1};
}

bool is_number(string_view text)
{
    return !text.empty() && std::ranges::all_of(text, [](char digit) { return digit >= '0' && digit <= '9'; });
}

// The number of a port as it is written; what a signed 32-bit number does not hold is no port.
int32_t port_number(string_view digits)
{
    int64_t value = 0;
    for (const char digit : digits) {
        value = value * 10 + (digit - '0');
        if (value > std::numeric_limits<int32_t>::max())
            return 0;
    }
    return static_cast<int32_t>(value);
}

void take_scheme(making &made, string_view scheme)
{
    made.uri->m_scheme = copy_of(made, scheme);
    const size_t at = scheme.find('@');
    made.uri->m_scheme_name = copy_of(made, before(scheme, std::min(at, scheme.size())));
    if (at != string_view::npos)
        made.uri->m_scheme_qualifier = copy_of(made, behind(scheme, at));
}

void take_path(making &made, string_view path)
{
    made.uri->m_path_query = copy_of(made, path);
    const size_t mark = path.find('?');
    made.uri->m_path = copy_of(made, before(path, std::min(mark, path.size())));
    made.uri->m_decoded_path = decoded(made, made.uri->m_path);
    if (mark == string_view::npos)
        return;
    made.uri->m_query = copy_of(made, behind(path, mark));
    made.uri->m_options = kestal_parse_uri_option(nullptr, made.uri->m_query, 0);
}

// Takes the port off the authority and returns what is left.
string_view take_port(making &made, string_view authority)
{
    // Only digits may follow the colon that counts, so it is the last one.
    const size_t colon = authority.rfind(':');
    if (colon == string_view::npos || !is_number(behind(authority, colon)))
        return authority;
    made.uri->m_port_text = copy_of(made, behind(authority, colon));
    made.uri->m_port = port_number(behind(authority, colon));
    return before(authority, colon);
}

void take_user(making &made, string_view user)
{
    const size_t colon = user.find(':');
    made.uri->m_user = copy_of(made, before(user, std::min(colon, user.size())));
    if (colon != string_view::npos)
        made.uri->m_password = copy_of(made, behind(user, colon));
}

void take_authority(making &made, string_view authority)
{
    string_view host = take_port(made, authority);
    if (host.empty())
        return;
    const size_t at = host.rfind('@');
    if (at != string_view::npos) {
        take_user(made, before(host, at));
        host = behind(host, at);
    }
    if (host.starts_with('[') && host.ends_with(']'))
        host = {host.data() + 1, host.size() - 2};
    made.uri->m_host = copy_of(made, host);
}

// Copies a piece behind an option and returns the place behind the copy.
char *store(char *&field, char *place, string_view piece)
{
    field = place;
    place = std::ranges::copy(piece, place).out;
    *place = '\0';
    return place + 1;
}

kestal_uri_option_t *new_option(string_view text, uint32_t flags)
{
    const size_t equals = std::min(text.find('='), text.size());
    const string_view name = before(text, equals);
    const string_view value = equals == text.size() ? string_view() : behind(text, equals);
    const uint64_t room = text.size() + name.size() + value.size() + 3;
    auto *option = static_cast<kestal_uri_option_t *>(
        kestal_calloc_tag(1, sizeof(kestal_uri_option_t) + room, "kestal_new_uri_option", __LINE__));
    if (option == nullptr)
        return nullptr;
    char *place = store(option->m_option, reinterpret_cast<char *>(option + 1), text);
    place = store(option->m_name, place, name);
    store(option->m_value, place, value);
    const uint32_t decoding = (flags & KESTAL_URI_OPTION_FORM) != 0 ? KESTAL_PERCENT_FORM : 0;
    option->m_decoded_name = kestal_decode_percent_string_ex(option->m_name, decoding);
    option->m_decoded_value = kestal_decode_percent_string_ex(option->m_value, decoding);
    return option;
}

making make(const char *text)
{
    if (text == nullptr)
        return {nullptr, false};
    const string_view whole = text;
    auto *uri = static_cast<kestal_uri_t *>(
        kestal_calloc_tag(1, sizeof(kestal_uri_t) + whole.size() + 1, "kestal_open_uri", __LINE__));
    making made{uri, uri != nullptr};
    if (uri == nullptr)
        return made;
    uri->m_uri = static_cast<char *>(memcpy(uri + 1, text, whole.size() + 1));

    string_view rest = whole;
    const size_t separator = whole.find("://");
    if (separator != string_view::npos) {
        take_scheme(made, before(whole, separator));
        rest = behind(whole, separator + 2);
    }
    uri->m_location = copy_of(made, rest);
    const size_t slash = rest.find('/');
    if (slash == string_view::npos) {
        uri->m_decoded_path = decoded(made, "/");
    } else {
        take_path(made, {rest.data() + slash, rest.size() - slash});
        rest = before(rest, slash);
    }
    take_authority(made, rest);
    return made;
}

} // namespace

kestal_uri_t *kestal::open_whole_uri(const char *text)
{
    const making made = make(text);
    if (made.is_whole)
        return made.uri;
    kestal_close_uri(made.uri);
    errno = text == nullptr ? EINVAL : ENOMEM;
    return nullptr;
}

kestal_uri_t *kestal_open_uri(const char *text)
{
    return make(text).uri;
}

int32_t kestal_close_uri(kestal_uri_t *uri)
{
    if (uri == nullptr)
        return -1;
    kestal_free_uri_option(uri->m_options);
    for (char *part :
         {uri->m_scheme, uri->m_user, uri->m_password, uri->m_host, uri->m_port_text, uri->m_path_query,
          uri->m_scheme_name, uri->m_scheme_qualifier, uri->m_location, uri->m_path, uri->m_decoded_path, uri->m_query})
        kestal_check_free(part);
    kestal_free(uri);
    return 0;
}

kestal_uri_option_t *kestal_parse_uri_option(kestal_uri_option_t *list, const char *text, uint32_t flags)
{
    kestal_uri_option_t **link = &list;
    while (*link != nullptr)
        link = &(*link)->m_next;
    uint64_t length = 0;
    while (const char *piece = kestal_get_word(&text, "&", 0, &length)) {
        *link = new_option({piece, static_cast<size_t>(length)}, flags);
        if (*link != nullptr)
            link = &(*link)->m_next;
    }
    return list;
}

kestal_uri_option_t *kestal_new_uri_option(const char *text, uint32_t flags)
{
    return text == nullptr ? nullptr : new_option(text, flags);
}

int32_t kestal_free_uri_option(kestal_uri_option_t *list)
{
    while (list != nullptr) {
        kestal_uri_option_t *next = list->m_next;
        kestal_check_free(list->m_decoded_name);
        kestal_check_free(list->m_decoded_value);
        kestal_free(list);
        list = next;
    }
    return 0;
}

kestal_uri_option_t *kestal_search_uri_option_node(kestal_uri_option_t *list, const char *pattern)
{
    for (; list != nullptr; list = list->m_next) {
        const char *name = list->m_decoded_name != nullptr ? list->m_decoded_name : list->m_name;
        if (kestal_match_wildcard_list(pattern, nullptr, name) != 0)
            return list;
    }
    return nullptr;
}

const char *kestal_search_uri_option_value(kestal_uri_option_t *list, const char *pattern)
{
    const kestal_uri_option_t *option = kestal_search_uri_option_node(list, pattern);
    return option == nullptr ? nullptr : option->m_value;
}

const char *kestal_search_uri_option_decode_value(kestal_uri_option_t *list, const char *pattern)
{
    const kestal_uri_option_t *option = kestal_search_uri_option_node(list, pattern);
    if (option == nullptr)
        return nullptr;
    return option->m_decoded_value != nullptr ? option->m_decoded_value : option->m_value;
}
