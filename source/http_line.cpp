#include "http_line.hpp"

#include "caller_text.hpp"

#include <kestal_ulx/memory.h>
#include <kestal_ulx/output.h>

#include <array>
#include <string.h>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view separators = "\"(),/:;<=>?@[\\]{} \t";
constexpr uint32_t version_minor_of_simple_request = 9;

// Which bytes names of methods, protocols and fields are made of. A terminator is none, so that a token ends with it.
constexpr auto token_bytes = [] {
    std::array<bool, 256> is_token{};
    for (size_t byte = 0x20; byte < 256; ++byte)
        is_token[byte] = byte != 0x7F;
    for (const char separator : separators)
        is_token[static_cast<unsigned char>(separator)] = false;
    return is_token;
}();

// Reads a node's line, which ends with its terminator, from left to right.
class line_reader {
public:
    explicit line_reader(const kestal_http_node_t &node) : at_(node.m_start), end_(node.m_start + node.m_size) {}

    char *at() const { return at_; }
    char next() const { return *at_; }

    bool skip(char character)
    {
        if (*at_ != character)
            return false;
        ++at_;
        return true;
    }

    std::string_view token()
    {
        return take_while([](char byte) { return token_bytes[static_cast<unsigned char>(byte)]; });
    }

    std::string_view digits()
    {
        return take_while([](char byte) { return byte >= '0' && byte <= '9'; });
    }

    std::string_view until(char end)
    {
        return take_while([end](char byte) { return byte != end && byte != '\0'; });
    }

    std::string_view rest() { return take(end_); }

private:
    template <typename Belongs>
    std::string_view take_while(Belongs belongs)
    {
        char *to = at_;
        while (belongs(*to))
            ++to;
        return take(to);
    }

    std::string_view take(char *to)
    {
        char *begin = std::exchange(at_, to);
        return {begin, static_cast<size_t>(to - begin)};
    }

    char *at_;
    char *end_;
};

// A version such as "1.1" or "2".
struct http_version {
    std::string_view text;
    uint32_t major;
    uint32_t minor;
};

// Of any size: what does not fit into 32 bits wraps.
uint32_t number(std::string_view digits)
{
    uint32_t value = 0;
    for (const char digit : digits)
        value = value * 10 + static_cast<uint32_t>(digit - '0');
    return value;
}

bool read_version(line_reader &line, http_version &version)
{
    const char *begin = line.at();
    const std::string_view major = line.digits();
    if (major.empty())
        return false;
    line.skip('.');
    const std::string_view minor = line.digits();
    version = {{begin, static_cast<size_t>(line.at() - begin)}, number(major), number(minor)};
    return true;
}

// "GET" in any case, and also its beginnings "GE" and "G": callers rely on it.
bool is_get(std::string_view method)
{
    return strncasecmp(method.data(), "GET", method.size()) == 0;
}

char *copy(std::string_view text)
{
    char *block = static_cast<char *>(kestal_alloc_tag(text.size() + 1, "kestal_http_parser_node_parsing", __LINE__));
    if (block == nullptr)
        return nullptr;
    if (!text.empty())
        memcpy(block, text.data(), text.size());
    block[text.size()] = '\0';
    return block;
}

// Makes the node one of a kind whose texts are these; null texts stay unset. False when one found no memory.
bool become(kestal_http_node_t &node, uint32_t type, char *extra, const std::array<std::string_view, 4> &texts)
{
    node.m_type = type;
    node.m_extra = extra;
    bool is_whole = true;
    char **const fields[] = {&node.m_text1, &node.m_text2, &node.m_text3, &node.m_text4};
    for (size_t i = 0; i < texts.size() && texts[i].data() != nullptr; ++i) {
        *fields[i] = copy(texts[i]);
        is_whole = is_whole && *fields[i] != nullptr;
    }
    return is_whole;
}

bool become_unknown(kestal_http_node_t &node)
{
    node.m_type = KESTAL_HTTP_NODE_UNKNOWN;
    return true;
}

bool classify_field(kestal_http_node_t &node, line_reader line, std::string_view name)
{
    line.skip(' ');
    const std::string_view value = line.rest();
    return become(node, KESTAL_HTTP_NODE_FIELD, line.at(), {name, value});
}

bool classify_status_line(kestal_http_node_t &node, line_reader line, std::string_view protocol)
{
    http_version version;
    if (!read_version(line, version))
        return become_unknown(node);
    line.skip(' ');
    const std::string_view code = line.digits();
    if (code.size() != 3)
        return become_unknown(node);
    line.skip(' ');
    const std::string_view reason = line.rest();
    node.m_major = version.major;
    node.m_minor = version.minor;
    node.m_status_code = number(code);
    return become(node, KESTAL_HTTP_NODE_STATUS, line.at(), {protocol, version.text, code, reason});
}

bool classify_request_line(kestal_http_node_t &node, line_reader line, std::string_view method)
{
    const std::string_view uri = line.until(' ');
    if (uri.empty())
        return become_unknown(node);
    if (line.next() == '\0' && is_get(method)) {
        node.m_minor = version_minor_of_simple_request;
        return become(node, KESTAL_HTTP_NODE_REQUEST, line.at(), {method, uri, "", ""});
    }
    line.skip(' ');
    const std::string_view protocol = line.until('/');
    line.skip('/');
    http_version version;
    if (protocol.empty() || !read_version(line, version))
        return become_unknown(node);
    node.m_major = version.major;
    node.m_minor = version.minor;
    return become(node, KESTAL_HTTP_NODE_REQUEST, line.at(), {method, uri, protocol, version.text});
}

} // namespace

bool kestal::classify_http_line(kestal_http_node_t &node)
{
    line_reader line(node);
    const std::string_view token = line.token();
    if (token.empty())
        return become_unknown(node);
    if (line.skip(':'))
        return classify_field(node, line, token);
    if (node.m_previous != nullptr)
        return become_unknown(node);
    if (line.skip('/'))
        return classify_status_line(node, line, token);
    if (line.skip(' '))
        return classify_request_line(node, line, token);
    return become_unknown(node);
}

void kestal::trace_http_line(const kestal_http_node_t &node)
{
    const char *const text1 = or_empty(node.m_text1), *const text2 = or_empty(node.m_text2),
                      *const text3 = or_empty(node.m_text3), *const text4 = or_empty(node.m_text4);
    switch (node.m_type) {
    case KESTAL_HTTP_NODE_END:
        kestal_printf("kestal_http_parser: [MESSAGE] end of header.\n");
        break;
    case KESTAL_HTTP_NODE_REQUEST:
        kestal_printf("kestal_http_parser: [MESSAGE] request-line (method=\"\033[1;37m%s\033[0m\", "
                      "uri=\"\033[1;37m%s\033[0m\", protocol=\"\033[1;37m%s\033[0m\", "
                      "protocol-version=\"\033[1;37m%s\033[0m\", major=\033[1;37m%u\033[0m, minor=\033[1;37m%u\033[0m, "
                      "extra=\"\033[1;37m%s\033[0m\")\n",
                      text1, text2, text3, text4, node.m_major, node.m_minor, node.m_extra);
        break;
    case KESTAL_HTTP_NODE_STATUS:
        kestal_printf("kestal_http_parser: [MESSAGE] status-line (protocol=\"\033[1;37m%s\033[0m\", "
                      "protocol_version=\"\033[1;37m%s\033[0m\", status-code=\"\033[1;37m%s\033[0m\", "
                      "reason-phrase=\"\033[1;37m%s\033[0m\", major=\033[1;37m%u\033[0m, minor=\033[1;37m%u\033[0m, "
                      "status-code-value=\033[1;37m%u\033[0m, extra=\"\033[1;37m%s\033[0m\")\n",
                      text1, text2, text3, text4, node.m_major, node.m_minor, node.m_status_code, node.m_extra);
        break;
    case KESTAL_HTTP_NODE_FIELD:
        kestal_printf("kestal_http_parser: [MESSAGE] field (name=\"\033[1;37m%s\033[0m\", "
                      "value=\"\033[1;37m%s\033[0m\", extra=\"\033[1;37m%s\033[0m\")\n",
                      text1, text2, node.m_extra);
        break;
    default:
        kestal_printf("kestal_http_parser: [WARNING] \033[1;31munknown node\033[0m (type=\033[1;37m%08XH\033[0m, "
                      "line=\"\033[1;37m%s\033[0m\")\n",
                      node.m_type, node.m_start);
        break;
    }
}
