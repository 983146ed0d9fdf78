#include <kestal_ulx/http_parser.h>

#include "caller_text.hpp"
#include "guard.hpp"
#include "http_line.hpp"
#include "line_end.hpp"
#include "list.hpp"

#include <kestal_ulx/format.h>
#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include <string.h>
#include <string_view>
#include <utility>

namespace {

using kestal::or_empty;

constexpr uint32_t line_end_flags = KESTAL_BUFFER_CR | KESTAL_BUFFER_LF;

enum class progress { more, ended, failed };

bool has(const kestal_http_parser_t &parser, uint32_t flags)
{
    return (parser.m_flags & flags) != 0;
}

bool is_valid(const kestal_http_parser_t *parser)
{
    return parser != nullptr && has(*parser, KESTAL_HTTP_PARSER_INITIALIZED);
}

bool is_verbose(const kestal_http_parser_t &parser)
{
    return has(parser, KESTAL_HTTP_PARSER_VERBOSE);
}

int64_t fail(kestal_http_parser_t &parser)
{
    parser.m_flags |= KESTAL_HTTP_PARSER_ERROR;
    return -1;
}

const char *error_word(const kestal_http_parser_t &parser)
{
    return has(parser, KESTAL_HTTP_PARSER_ERROR) ? "\033[1;31merror\033[0m" : "\033[1;34mno-error\033[0m";
}

kestal::doubly_linked_list nodes_of(kestal_http_parser_t &parser)
{
    return {&parser.m_head, &parser.m_tail, KESTAL_LINKS(kestal_http_node_t, m_previous, m_next)};
}

// --- nodes

kestal_http_node_t *new_node(uint32_t type, std::string_view line, size_t room)
{
    auto *node = static_cast<kestal_http_node_t *>(
        kestal_alloc_tag(sizeof(kestal_http_node_t) + room, "kestal_http_parser_new_node", __LINE__));
    if (node == nullptr)
        return nullptr;
    node->m_previous = node->m_next = nullptr;
    node->m_type = type;
    node->m_size = line.size();
    node->m_start = node->m_extra = node->m_line;
    node->m_text1 = node->m_text2 = node->m_text3 = node->m_text4 = nullptr;
    node->m_major = node->m_minor = node->m_status_code = 0;
    if (!line.empty())
        memcpy(node->m_start, line.data(), line.size());
    node->m_start[line.size()] = '\0';
    return node;
}

void free_node(kestal_http_node_t *node)
{
    for (char *text : {node->m_text1, node->m_text2, node->m_text3, node->m_text4})
        kestal_check_free_tag(text, "kestal_http_parser_free_node", __LINE__);
    kestal_free_tag(node, "kestal_http_parser_free_node", __LINE__);
}

void free_all_nodes(kestal_http_parser_t &parser)
{
    for (kestal_http_node_t *node = parser.m_head; node != nullptr;)
        free_node(std::exchange(node, node->m_next));
    parser.m_head = parser.m_tail = nullptr;
}

// The characters for which a node has room, without the terminator.
size_t room_of(kestal_http_node_t *node)
{
    return static_cast<size_t>(__kestal_malloc_usable_size(node)) - offsetof(kestal_http_node_t, m_line) - 1;
}

// --- lines

bool is_blank(char character)
{
    return character == ' ' || character == '\t';
}

// A line that finds no memory is left out.
progress append_line(kestal_http_parser_t &parser, uint32_t type, std::string_view line)
{
    kestal_http_node_t *node = new_node(type, line, line.size());
    if (node == nullptr) {
        fail(parser);
        if (is_verbose(parser))
            kestal_error_printf("kestal_http_parser: [ERROR] \033[1;31mkestal_http_parser_new_node failed !\033[0m "
                                "(\"\033[1;37m%.*s\033[0m\")\n",
                                static_cast<int32_t>(line.size()), line.data());
        return progress::more;
    }
    nodes_of(parser).append(node);
    return type == KESTAL_HTTP_NODE_END ? progress::ended : progress::more;
}

// Joins a folded line, without its leading blanks, to the last one. Room to spare makes long foldings cost no more than
// their length.
progress join_line(kestal_http_parser_t &parser, std::string_view line)
{
    kestal_http_node_t *node = parser.m_tail;
    const size_t before = static_cast<size_t>(node->m_size), size = before + line.size();
    if (room_of(node) < size) {
        node = new_node(KESTAL_HTTP_NODE_LINE, {parser.m_tail->m_start, before}, size + size / 2);
        if (node == nullptr) {
            fail(parser);
            if (is_verbose(parser))
                kestal_error_printf("kestal_http_parser: [ERROR] \033[1;31mlws merge line failed !\033[0m "
                                    "(\"\033[1;37m%s\033[0m\" + \"\033[1;37m%.*s\033[0m\")\n",
                                    parser.m_tail->m_start, static_cast<int32_t>(line.size()), line.data());
            return progress::more;
        }
        kestal_http_node_t *tail = parser.m_tail;
        nodes_of(parser).replace(tail, node);
        free_node(tail);
    }
    memcpy(node->m_start + before, line.data(), line.size());
    node->m_start[size] = '\0';
    node->m_size = size;
    if (size > 0)
        return progress::more;
    node->m_type = KESTAL_HTTP_NODE_END;
    return progress::ended;
}

// Takes in a line, of which what follows a zero byte is no part.
progress take_line(kestal_http_parser_t &parser, std::string_view line)
{
    line = {line.data(), strnlen(line.data(), line.size())};
    if (line.empty())
        return append_line(parser, KESTAL_HTTP_NODE_END, line);
    if (!is_blank(line.front()))
        return append_line(parser, KESTAL_HTTP_NODE_LINE, line);
    while (!line.empty() && is_blank(line.front()))
        line.remove_prefix(1);
    return parser.m_tail != nullptr ? join_line(parser, line) : append_line(parser, KESTAL_HTTP_NODE_LINE, line);
}

// What a push still has to take in, and how the last line ended.
struct feed {
    std::string_view bytes;
    uint32_t line_end;
};

// Drops the first byte when it is the second half of the CR LF or LF CR that ended the last line.
void drop_pair_byte(feed &feed)
{
    if (feed.line_end == 0 || feed.bytes.empty())
        return;
    if (feed.bytes.front() == (feed.line_end == KESTAL_BUFFER_CR ? '\n' : '\r'))
        feed.bytes.remove_prefix(1);
    feed.line_end = 0;
}

bool has_begun_line(const kestal_http_parser_t &parser)
{
    return parser.m_input != nullptr && parser.m_input->m_size > 0;
}

// The queue is made when there is something for it to hold.
bool need_input(kestal_http_parser_t &parser)
{
    if (parser.m_input == nullptr)
        parser.m_input = kestal_open_buffer_ex(0);
    if (parser.m_input == nullptr)
        fail(parser);
    return parser.m_input != nullptr;
}

bool queue(kestal_http_parser_t &parser, feed &feed, size_t length)
{
    if (!need_input(parser))
        return false;
    if (kestal_push_buffer_ex(parser.m_input, feed.bytes.data(), length, 0) != length) {
        fail(parser);
        return false;
    }
    feed.bytes.remove_prefix(length);
    return true;
}

// Goes on with the line that an earlier push began.
progress take_begun_line(kestal_http_parser_t &parser, feed &feed)
{
    kestal_buffer_t &input = *parser.m_input;
    for (;;) {
        if (char *line = kestal_pop_buffer_line(&input)) {
            feed.line_end = std::exchange(input.m_flags, input.m_flags & ~line_end_flags) & line_end_flags;
            const progress result = take_line(parser, line);
            kestal_free(line);
            if (result != progress::more || input.m_size == 0)
                return result;
            continue;
        }
        if (input.m_scan_length < input.m_size) // there was a line, but no memory for it
            fail(parser);
        if (feed.bytes.empty())
            return progress::more;
        const char *begin = feed.bytes.data(), *rest = begin + feed.bytes.size();
        uint32_t high_byte = input.m_scan_high_byte;
        const char *end = kestal::find_line_end(begin, rest, high_byte);
        if (!queue(parser, feed, static_cast<size_t>(end - begin) + (end == rest ? 0 : 1)))
            return progress::failed;
    }
}

// Takes in a line right from where it is, if the push holds it whole, else queues its beginning.
progress take_next_line(kestal_http_parser_t &parser, feed &feed)
{
    const char *begin = feed.bytes.data();
    uint32_t high_byte = 0;
    const char *end = kestal::find_line_end(begin, begin + feed.bytes.size(), high_byte);
    const size_t length = static_cast<size_t>(end - begin);
    if (length == feed.bytes.size())
        return queue(parser, feed, length) ? progress::more : progress::failed;
    feed.bytes.remove_prefix(length + 1);
    feed.line_end = *end == '\r' ? KESTAL_BUFFER_CR : KESTAL_BUFFER_LF;
    return take_line(parser, {begin, length});
}

// Takes in lines up to the one that ends the head; what follows it stays in the feed.
progress take_lines(kestal_http_parser_t &parser, feed &feed)
{
    progress result = has_begun_line(parser) ? take_begun_line(parser, feed) : progress::more;
    for (;;) {
        drop_pair_byte(feed);
        if (result != progress::more || feed.bytes.empty())
            return result;
        result = take_next_line(parser, feed);
    }
}

// Remembers how the last line ended for the push to come.
bool keep_line_end(kestal_http_parser_t &parser, uint32_t line_end)
{
    if (!need_input(parser))
        return false;
    parser.m_input->m_flags = (parser.m_input->m_flags & ~line_end_flags) | line_end;
    return true;
}

void end_head(kestal_http_parser_t &parser)
{
    parser.m_input = kestal_close_buffer(parser.m_input);
    parser.m_flags |= KESTAL_HTTP_PARSER_COMPLETE;
    for (kestal_http_node_t *node = parser.m_head; node != nullptr; node = node->m_next) {
        if (node->m_type == KESTAL_HTTP_NODE_LINE && !kestal::classify_http_line(*node))
            fail(parser);
        if (is_verbose(parser))
            kestal::trace_http_line(*node);
    }
}

// --- output

// Writes texts one behind the other, or only counts their bytes when there is nowhere to write to.
class text_writer {
public:
    explicit text_writer(char *to) : to_(to) {}

    uint64_t size() const { return size_; }

    void put(std::string_view text)
    {
        if (to_ != nullptr)
            memcpy(to_ + size_, text.data(), text.size());
        size_ += text.size();
    }

    template <typename... Texts>
    void line(Texts... texts)
    {
        (put(or_empty(texts)), ...);
        put("\r\n");
    }

private:
    char *to_;
    uint64_t size_ = 0;
};

uint64_t write_head(const kestal_http_node_t *node, char *to)
{
    text_writer writer(to);
    for (; node != nullptr && node->m_type != KESTAL_HTTP_NODE_END; node = node->m_next) {
        const char *text1 = node->m_text1, *text2 = node->m_text2, *text3 = node->m_text3, *text4 = node->m_text4;
        if (node->m_type == KESTAL_HTTP_NODE_FIELD)
            writer.line(text1, ": ", text2);
        else if (node->m_type == KESTAL_HTTP_NODE_STATUS)
            writer.line(text1, "/", text2, " ", text3, " ", text4);
        else if (node->m_type == KESTAL_HTTP_NODE_REQUEST && *or_empty(text3) == '\0')
            writer.line(text1, " ", text2);
        else if (node->m_type == KESTAL_HTTP_NODE_REQUEST)
            writer.line(text1, " ", text2, " ", text3, "/", text4);
    }
    writer.line();
    return writer.size();
}

void free_output(kestal_http_parser_t &parser)
{
    kestal_check_free_tag(std::exchange(parser.m_output, nullptr), "kestal_get_output_http_parser", __LINE__);
    parser.m_output_size = 0;
}

// --- look-ups

// Whether they differ by nothing, or by the case of an ASCII letter.
bool is_same_letter(char a, char b)
{
    const int difference = a ^ b;
    const char small = static_cast<char>(a | 0x20);
    return difference == 0 || (difference == 0x20 && small >= 'a' && small <= 'z');
}

bool is_same_name(const char *a, const char *b)
{
    while (*a != '\0' && is_same_letter(*a, *b)) {
        ++a;
        ++b;
    }
    return *a == *b;
}

template <typename Wanted>
kestal_http_node_t *search(const kestal_http_node_t *node, Wanted is_wanted)
{
    while (node != nullptr && !is_wanted(*node))
        node = node->m_next;
    return const_cast<kestal_http_node_t *>(node);
}

const kestal_http_node_t *head_of(const kestal_http_parser_t *parser)
{
    return is_valid(parser) ? parser->m_head : nullptr;
}

const kestal_http_node_t *find_type(const kestal_http_parser_t *parser, uint32_t type)
{
    return kestal_search_http_parser_by_type(head_of(parser), type);
}

} // namespace

kestal_http_parser_t *kestal_new_http_parser(void)
{
    auto *parser = static_cast<kestal_http_parser_t *>(kestal_calloc(1, sizeof(kestal_http_parser_t)));
    if (kestal_init_http_parser(parser) != nullptr)
        parser->m_flags |= KESTAL_HTTP_PARSER_ALLOCATED;
    return parser;
}

kestal_http_parser_t *kestal_init_http_parser(kestal_http_parser_t *parser)
{
    if (parser == nullptr)
        return nullptr;
    parser->m_flags = KESTAL_HTTP_PARSER_INITIALIZED;
    parser->m_input = nullptr;
    parser->m_head = parser->m_tail = nullptr;
    parser->m_output = nullptr;
    parser->m_output_size = 0;
    return parser;
}

int32_t kestal_destroy_http_parser(kestal_http_parser_t *parser)
{
    if (!is_valid(parser))
        return 0;
    const bool is_allocated = has(*parser, KESTAL_HTTP_PARSER_ALLOCATED);
    if (is_verbose(*parser)) {
        parser->m_flags &= ~KESTAL_HTTP_PARSER_VERBOSE;
        kestal_printf("kestal_http_parser: [MESSAGE] %s http parser. (%s)\n", is_allocated ? "free" : "destroy",
                      error_word(*parser));
    }
    kestal_reset_http_parser(parser);
    parser->m_flags &= ~KESTAL_HTTP_PARSER_INITIALIZED;
    if (is_allocated)
        kestal_free(parser);
    return 0;
}

int32_t kestal_free_http_parser(kestal_http_parser_t *parser)
{
    return kestal_destroy_http_parser(parser);
}

int32_t kestal_reset_http_parser(kestal_http_parser_t *parser)
{
    if (!is_valid(parser))
        return -1;
    free_output(*parser);
    free_all_nodes(*parser);
    parser->m_input = kestal_close_buffer(parser->m_input);
    if (is_verbose(*parser))
        kestal_printf("kestal_http_parser: [MESSAGE] reset http parser. (%s)\n", error_word(*parser));
    parser->m_flags &= ~(KESTAL_HTTP_PARSER_COMPLETE | KESTAL_HTTP_PARSER_ERROR);
    return 0;
}

int64_t kestal_push_http_parser(kestal_http_parser_t *parser, const void *data, uint64_t size)
{
    if (parser == nullptr)
        return -1;
    if (!is_valid(parser))
        return fail(*parser);
    if (size == 0 || has(*parser, KESTAL_HTTP_PARSER_COMPLETE))
        return 0;
    if (data == nullptr)
        return fail(*parser);
    const kestal_buffer_t *input = parser->m_input;
    if (is_verbose(*parser))
        kestal_printf("kestal_http_parser: [MESSAGE] push \033[1;37m%lu\033[0m bytes (total=\033[1;37m%lu\033[0m)\n",
                      size, (input == nullptr ? 0 : input->m_size) + size);
    feed feed{{static_cast<const char *>(data), static_cast<size_t>(size)},
              input == nullptr ? 0 : input->m_flags & line_end_flags};
    const progress result = take_lines(*parser, feed);
    if (result == progress::ended) {
        const uint64_t rest = kestal_get_buffer_size(parser->m_input) + feed.bytes.size();
        end_head(*parser);
        return size > rest ? static_cast<int64_t>(size - rest) : 0;
    }
    return result == progress::more && keep_line_end(*parser, feed.line_end) ? static_cast<int64_t>(size) : -1;
}

int64_t kestal_push_vprintf_http_parser(kestal_http_parser_t *parser, const char *format, va_list list)
{
    if (parser == nullptr)
        return -1;
    const kestal::owned_block<char> text(kestal_alloc_vsprintf(format, list), "kestal_push_vprintf_http_parser");
    return text ? kestal_push_http_parser(parser, text.get(), strlen(text.get())) : fail(*parser);
}

int64_t kestal_push_printf_http_parser(kestal_http_parser_t *parser, const char *format, ...)
{
    va_list list;
    va_start(list, format);
    const int64_t taken = kestal_push_vprintf_http_parser(parser, format, list);
    va_end(list);
    return taken;
}

const char *kestal_get_output_http_parser(kestal_http_parser_t *parser, uint64_t *size)
{
    if (size != nullptr)
        *size = 0;
    if (!is_valid(parser))
        return nullptr;
    free_output(*parser);
    const uint64_t length = write_head(parser->m_head, nullptr);
    parser->m_output = static_cast<char *>(kestal_alloc(length + 1));
    if (parser->m_output == nullptr) {
        fail(*parser);
        return nullptr;
    }
    write_head(parser->m_head, parser->m_output);
    parser->m_output[length] = '\0';
    parser->m_output_size = length;
    if (size != nullptr)
        *size = length;
    return parser->m_output;
}

kestal_http_node_t *kestal_search_http_parser(const kestal_http_node_t *first, const char *name)
{
    name = or_empty(name);
    return search(first, [name](const kestal_http_node_t &node) {
        return node.m_type == KESTAL_HTTP_NODE_FIELD && is_same_name(or_empty(node.m_text1), name);
    });
}

kestal_http_node_t *kestal_search_http_parser_by_type(const kestal_http_node_t *first, uint32_t type)
{
    return search(first, [type](const kestal_http_node_t &node) { return node.m_type == type; });
}

kestal_http_node_t *kestal_http_parser_get_header_node(const kestal_http_parser_t *parser)
{
    return search(head_of(parser), [](const kestal_http_node_t &node) {
        return node.m_type == KESTAL_HTTP_NODE_REQUEST || node.m_type == KESTAL_HTTP_NODE_STATUS;
    });
}

uint32_t kestal_http_parser_get_header_type(const kestal_http_parser_t *parser)
{
    const kestal_http_node_t *node = kestal_http_parser_get_header_node(parser);
    return node == nullptr ? 0 : node->m_type;
}

const char *kestal_http_parser_get_method(const kestal_http_parser_t *parser)
{
    const kestal_http_node_t *node = find_type(parser, KESTAL_HTTP_NODE_REQUEST);
    return node == nullptr ? nullptr : node->m_text1;
}

const char *kestal_http_parser_get_request_uri(const kestal_http_parser_t *parser)
{
    const kestal_http_node_t *node = find_type(parser, KESTAL_HTTP_NODE_REQUEST);
    return node == nullptr ? nullptr : node->m_text2;
}

uint32_t kestal_http_parser_get_status_code(const kestal_http_parser_t *parser)
{
    const kestal_http_node_t *node = find_type(parser, KESTAL_HTTP_NODE_STATUS);
    return node == nullptr ? 0 : node->m_status_code;
}

int32_t kestal_http_parser_get_version(const kestal_http_parser_t *parser, uint32_t *major, uint32_t *minor)
{
    const kestal_http_node_t *node = kestal_http_parser_get_header_node(parser);
    if (major != nullptr)
        *major = node == nullptr ? 0 : node->m_major;
    if (minor != nullptr)
        *minor = node == nullptr ? 0 : node->m_minor;
    return -1; // always: callers go by what was stored
}

const char *kestal_http_parser_get_field(const kestal_http_parser_t *parser, const char *name)
{
    const kestal_http_node_t *node = kestal_search_http_parser(head_of(parser), name);
    return node == nullptr ? nullptr : node->m_text2;
}
