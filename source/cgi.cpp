#include <kestal_ulx/cgi.h>

#include "cgi.hpp"
#include "set_field.hpp"

#include <kestal_ulx/memory.h>

#include <algorithm>
#include <string.h>
#include <string_view>

namespace {

using kestal::object_of;
using kestal::set_field;
using std::string_view;

constexpr const char *methods[] = {"", "GET", "HEAD", "POST", "PUT", "DELETE", "LINK", "UNLINK", nullptr};

string_view view(const char *text)
{
    return text == nullptr ? "" : text;
}

// Copies a text and its terminator to `place`, and returns the place behind them.
char *append(char *&field, char *place, string_view text)
{
    field = place;
    memcpy(place, text.data(), text.size());
    place[text.size()] = '\0';
    return place + text.size() + 1;
}

kestal_cgi_account_t *new_account(string_view username, string_view password)
{
    auto *account = static_cast<kestal_cgi_account_t *>(kestal_alloc_tag(
        sizeof(kestal_cgi_account_t) + username.size() + password.size() + 2, "kestal_cgi_new_account", __LINE__));
    if (account == nullptr)
        return nullptr;
    *account = {.m_next = nullptr,
                .m_username_length = username.size(),
                .m_username = nullptr,
                .m_password_length = password.size(),
                .m_password = nullptr};
    char *place = append(account->m_username, reinterpret_cast<char *>(account + 1), username);
    append(account->m_password, place, password);
    return account;
}

void free_account(kestal_cgi_account_t *account)
{
    const uint64_t texts = account->m_username_length + account->m_password_length + 2;
    explicit_bzero(account, static_cast<size_t>(sizeof(kestal_cgi_account_t) + texts));
    kestal_free_tag(account, "kestal_cgi_free_account", __LINE__);
}

kestal_cgi_response_header_t *new_response_header(string_view name, string_view value)
{
    auto *header = static_cast<kestal_cgi_response_header_t *>(
        kestal_alloc_tag(sizeof(kestal_cgi_response_header_t) + name.size() + value.size() + 2,
                         "kestal_cgi_new_response_header", __LINE__));
    if (header == nullptr)
        return nullptr;
    *header = {.m_next = nullptr, .m_name = nullptr, .m_value_length = value.size(), .m_value = nullptr};
    char *place = append(header->m_name, reinterpret_cast<char *>(header + 1), name);
    append(header->m_value, place, value);
    return header;
}

bool is_header_name(string_view name)
{
    constexpr string_view marks = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::ranges::all_of(name, [marks](char character) {
        const char lower = static_cast<char>(character | 0x20);
        return (lower >= 'a' && lower <= 'z') || (character >= '0' && character <= '9') ||
               marks.find(character) != string_view::npos;
    });
}

bool is_header_value(string_view value)
{
    return std::ranges::none_of(value, [](char character) {
        const auto byte = static_cast<uint8_t>(character);
        return (byte < 0x20 && byte != '\t') || byte == 0x7F;
    });
}

} // namespace

kestal_cgi_t *kestal_open_cgi(int32_t argc, char *const *argv, char *const *envp)
{
    auto *cgi = static_cast<kestal_cgi_object *>(kestal_calloc(1, sizeof(kestal_cgi_object)));
    if (cgi == nullptr)
        return nullptr;
    cgi->m_carriage_return = "\r";
    cgi->m_line_feed = "\n";
    cgi->m_line_end = "\r\n";
    cgi->m_methods = methods;
    cgi->m_method = methods[KESTAL_CGI_METHOD_NONE];
    cgi->m_argument = kestal_open_argument(argc, argv, envp);
    cgi->m_body = kestal_open_buffer_ex(0);
    cgi->m_output = kestal_open_buffer_ex(0);
    cgi->m_error_output = kestal_open_buffer_ex(0);
    if (cgi->m_argument == nullptr || cgi->m_output == nullptr || cgi->m_error_output == nullptr) {
        kestal_close_cgi(cgi);
        return nullptr;
    }
    return cgi;
}

int32_t kestal_close_cgi(kestal_cgi_t *cgi)
{
    if (cgi == nullptr)
        return -1;
    for (kestal_buffer_t *buffer : {cgi->m_body, cgi->m_output, cgi->m_error_output})
        kestal_close_buffer(buffer);
    kestal_free_uri_option(cgi->m_query_options);
    kestal_free_uri_option(cgi->m_body_options);
    while (kestal_cgi_response_header_t *header = cgi->m_response_headers) {
        cgi->m_response_headers = header->m_next;
        kestal_free(header);
    }
    while (kestal_cgi_account_t *account = cgi->m_accounts) {
        cgi->m_accounts = account->m_next;
        free_account(account);
    }
    kestal_close_argument(cgi->m_argument);
    kestal_free(cgi);
    return 0;
}

int32_t kestal_cgi_add_account(kestal_cgi_t *cgi, const char *username, const char *password)
{
    if (cgi == nullptr)
        return -1;
    for (const kestal_cgi_account_t *account = cgi->m_accounts; account != nullptr; account = account->m_next)
        if (account->m_username == view(username) && account->m_password == view(password))
            return 0;
    kestal_cgi_account_t *account = new_account(view(username), view(password));
    if (account == nullptr) {
        object_of(*cgi).lacks_account = 1;
        return -1;
    }
    account->m_next = cgi->m_accounts;
    cgi->m_accounts = account;
    return 0;
}

int32_t kestal_cgi_set_basic_check(kestal_cgi_t *cgi, uint32_t on)
{
    return set_field(cgi, &kestal_cgi_object::checks_basic, on);
}

int32_t kestal_cgi_set_header_check(kestal_cgi_t *cgi, uint32_t on)
{
    return set_field(cgi, &kestal_cgi_object::checks_headers, on);
}

int32_t kestal_cgi_set_whole_body(kestal_cgi_t *cgi, uint32_t on)
{
    return set_field(cgi, &kestal_cgi_object::reads_whole_body, on);
}

int32_t kestal_cgi_set_body_limit(kestal_cgi_t *cgi, uint64_t bytes)
{
    return set_field(cgi, &kestal_cgi_t::m_body_limit, bytes);
}

int32_t kestal_cgi_set_incoming_handler(kestal_cgi_t *cgi, kestal_cgi_incoming_handler_t handler)
{
    return set_field(cgi, &kestal_cgi_t::m_incoming_handler, handler);
}

int32_t kestal_cgi_set_outgoing_handler(kestal_cgi_t *cgi, kestal_cgi_outgoing_handler_t handler)
{
    return set_field(cgi, &kestal_cgi_t::m_outgoing_handler, handler);
}

int32_t kestal_cgi_set_file_name(kestal_cgi_t *cgi, const char *name)
{
    return set_field(cgi, &kestal_cgi_t::m_file_name, name);
}

int32_t kestal_cgi_set_context(kestal_cgi_t *cgi, void *context)
{
    return set_field(cgi, &kestal_cgi_object::context, context);
}

void *kestal_cgi_get_context(const kestal_cgi_t *cgi)
{
    return cgi == nullptr ? nullptr : static_cast<const kestal_cgi_object *>(cgi)->context;
}

int32_t kestal_cgi_set_response_header(kestal_cgi_t *cgi, const char *name, const char *value)
{
    if (cgi == nullptr || name == nullptr)
        return -1;
    if (object_of(*cgi).checks_headers != 0 && !(is_header_name(name) && is_header_value(view(value))))
        return -1;
    kestal_cgi_response_header_t *header = new_response_header(name, view(value));
    if (header == nullptr)
        return -1;
    kestal_cgi_response_header_t **link = &cgi->m_response_headers;
    while (*link != nullptr)
        link = &(*link)->m_next;
    *link = header;
    return 0;
}

const char *kestal_cgi_search_query_value(kestal_cgi_t *cgi, const char *name)
{
    if (cgi == nullptr)
        return nullptr;
    const char *value = kestal_search_uri_option_value(cgi->m_query_options, name);
    return value != nullptr ? value : kestal_search_uri_option_value(cgi->m_body_options, name);
}

const char *kestal_cgi_search_query_decode_value(kestal_cgi_t *cgi, const char *name)
{
    if (cgi == nullptr)
        return nullptr;
    const char *value = kestal_search_uri_option_decode_value(cgi->m_query_options, name);
    return value != nullptr ? value : kestal_search_uri_option_decode_value(cgi->m_body_options, name);
}
