// What tests and fuzzing of HTTP heads share: parsers that destroy themselves, and what they found as a text.
#pragma once

#include <kestal_ulx.h>

#include <cstring>
#include <string>

namespace kestal_test {

struct http_head {
    kestal_http_parser_t get;
    http_head() { kestal_init_http_parser(&get); }
    explicit http_head(const std::string &head) : http_head() { push(head); }
    ~http_head() { kestal_destroy_http_parser(&get); }
    http_head(const http_head &) = delete;
    http_head &operator=(const http_head &) = delete;

    int64_t push(const std::string &bytes) { return kestal_push_http_parser(&get, bytes.data(), bytes.size()); }
    bool has(uint32_t flag) const { return (get.m_flags & flag) != 0; }
    bool is_complete() const { return has(KESTAL_HTTP_PARSER_COMPLETE); }
    std::string output()
    {
        uint64_t size = 0;
        const char *text = kestal_get_output_http_parser(&get, &size);
        return {text, static_cast<size_t>(size)};
    }
};

// A line as its type with its texts, numbers, and what follows the part that was understood.
inline std::string shown(const kestal_http_node_t *node)
{
    char type[16];
    std::string line(type, kestal_snprintf(type, sizeof type, "%x", node->m_type));
    for (const char *text : {node->m_text1, node->m_text2, node->m_text3, node->m_text4})
        if (text != nullptr)
            line += "|" + std::string(text);
    if (node->m_type == KESTAL_HTTP_NODE_REQUEST || node->m_type == KESTAL_HTTP_NODE_STATUS)
        line += " " + std::to_string(node->m_major) + "." + std::to_string(node->m_minor);
    if (node->m_status_code != 0)
        line += " " + std::to_string(node->m_status_code);
    if (node->m_type == KESTAL_HTTP_NODE_LINE || node->m_type == KESTAL_HTTP_NODE_UNKNOWN)
        line += "|" + std::string(node->m_start);
    else
        line += "+" + std::string(node->m_extra);
    return node->m_size == strlen(node->m_start) ? line : "wrong length: " + line;
}

inline std::string shown(const kestal_http_parser_t &parser)
{
    std::string lines;
    const kestal_http_node_t *last = nullptr;
    for (const kestal_http_node_t *node = parser.m_head; node != nullptr; last = node, node = node->m_next)
        lines += (node->m_previous == last ? "" : "wrong link: ") + shown(node) + "\n";
    return parser.m_tail == last ? lines : lines + "wrong tail";
}

} // namespace kestal_test
