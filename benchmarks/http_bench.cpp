// The head of an HTTP message beside http_parser: read in one piece, stored, three fields looked up, all released. The peer
// only finds the parts; its side stores what the library's nodes hold (the line's start, names and values as texts of
// their own that a program may keep or change) in the way its users do.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <http_parser.h>
#include <string>
#include <strings.h>
#include <vector>

namespace {

constexpr char request[] =
    "POST /joyent/http-parser HTTP/1.1\r\n"
    "Host: github.com\r\n"
    "DNT: 1\r\n"
    "Accept-Encoding: gzip, deflate, sdch\r\n"
    "Accept-Language: ru-RU,ru;q=0.8,en-US;q=0.6,en;q=0.4\r\n"
    "User-Agent: Mozilla/5.0 (Macintosh; Intel Mac OS X 10_10_1) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/39.0.2171.65 Safari/537.36\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/webp,*/*;q=0.8\r\n"
    "Referer: https://github.com/joyent/http-parser\r\n"
    "Connection: keep-alive\r\n"
    "Content-Length: 0\r\n"
    "Cache-Control: max-age=0\r\n\r\n";
constexpr char notify[] = "NOTIFY * HTTP/1.1\r\n"
                          "HOST: 239.255.255.250:1900\r\n"
                          "CACHE-CONTROL: max-age=1800\r\n"
                          "LOCATION: http://192.168.1.1:49152/description.xml\r\n"
                          "NT: urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n"
                          "NTS: ssdp:alive\r\n"
                          "SERVER: Linux/5.10 UPnP/1.0 device/1.0\r\n"
                          "USN: uuid:f40c2981-7329-40b7-8b04-27f187aecfb5::upnp:rootdevice\r\n\r\n";

void read_kestal(benchmark::State &state, const char *head, size_t size, const char *const (&names)[3])
{
    kestal_http_parser_t parser;
    kestal_init_http_parser(&parser);
    for (auto _ : state) {
        if (kestal_push_http_parser(&parser, head, size) != static_cast<int64_t>(size))
            state.SkipWithError("not the whole head");
        for (const char *name : names)
            benchmark::DoNotOptimize(kestal_http_parser_get_field(&parser, name));
        kestal_reset_http_parser(&parser);
    }
    kestal_destroy_http_parser(&parser);
}

// What is stored by the peer's callbacks.
struct message {
    std::string uri;
    std::vector<std::pair<std::string, std::string>> fields;
    bool is_value = true;

    const std::string *find(const char *name) const
    {
        for (const auto &field : fields)
            if (strcasecmp(field.first.c_str(), name) == 0)
                return &field.second;
        return nullptr;
    }
};

message &of(http_parser *parser)
{
    return *static_cast<message *>(parser->data);
}

int on_uri(http_parser *parser, const char *at, size_t length)
{
    of(parser).uri.append(at, length);
    return 0;
}

int on_name(http_parser *parser, const char *at, size_t length)
{
    message &got = of(parser);
    if (got.is_value)
        got.fields.emplace_back();
    got.is_value = false;
    got.fields.back().first.append(at, length);
    return 0;
}

int on_value(http_parser *parser, const char *at, size_t length)
{
    of(parser).is_value = true;
    of(parser).fields.back().second.append(at, length);
    return 0;
}

void read_http_parser(benchmark::State &state, const char *head, size_t size, const char *const (&names)[3])
{
    http_parser_settings settings;
    http_parser_settings_init(&settings);
    settings.on_url = on_uri;
    settings.on_header_field = on_name;
    settings.on_header_value = on_value;
    for (auto _ : state) {
        message got;
        http_parser parser;
        http_parser_init(&parser, HTTP_REQUEST);
        parser.data = &got;
        if (http_parser_execute(&parser, &settings, head, size) != size)
            state.SkipWithError("not the whole head");
        for (const char *name : names)
            benchmark::DoNotOptimize(got.find(name));
    }
}

constexpr const char *request_names[] = {"host", "content-length", "connection"};
constexpr const char *notify_names[] = {"nt", "usn", "location"};

BENCHMARK_CAPTURE(read_kestal, request, request, sizeof request - 1, request_names)
    ->Name("HTTP request head, stored + 3 look-ups:kestal");
BENCHMARK_CAPTURE(read_http_parser, request, request, sizeof request - 1, request_names)
    ->Name("HTTP request head, stored + 3 look-ups:http-parser");
BENCHMARK_CAPTURE(read_kestal, notify, notify, sizeof notify - 1, notify_names)
    ->Name("SSDP message, stored + 3 look-ups:kestal");
BENCHMARK_CAPTURE(read_http_parser, notify, notify, sizeof notify - 1, notify_names)
    ->Name("SSDP message, stored + 3 look-ups:http-parser");

} // namespace
