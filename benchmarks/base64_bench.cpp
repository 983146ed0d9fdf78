// Base64 beside OpenSSL and GLib. Every side makes a new block for its result; throughput is that of the data, not of
// the text.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <glib.h>
#include <openssl/evp.h>

#include <memory>
#include <string>

namespace {

using conversion = void (*)(const std::string &input);

void kestal_encode(const std::string &input)
{
    char *text = kestal_encode_base64(input.data(), input.size(), nullptr);
    benchmark::DoNotOptimize(text);
    kestal_free(text);
}

void kestal_decode(const std::string &input)
{
    char *bytes = kestal_decode_base64(input.data(), input.size(), nullptr);
    benchmark::DoNotOptimize(bytes);
    kestal_free(bytes);
}

void openssl_encode(const std::string &input)
{
    const std::unique_ptr<uint8_t[]> text(new uint8_t[input.size() / 3 * 4 + 5]);
    EVP_EncodeBlock(text.get(), reinterpret_cast<const uint8_t *>(input.data()), static_cast<int>(input.size()));
    benchmark::DoNotOptimize(text.get());
}

void openssl_decode(const std::string &input)
{
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[input.size() / 4 * 3 + 3]);
    EVP_DecodeBlock(bytes.get(), reinterpret_cast<const uint8_t *>(input.data()), static_cast<int>(input.size()));
    benchmark::DoNotOptimize(bytes.get());
}

void glib_encode(const std::string &input)
{
    gchar *text = g_base64_encode(reinterpret_cast<const guchar *>(input.data()), input.size());
    benchmark::DoNotOptimize(text);
    g_free(text);
}

void glib_decode(const std::string &input)
{
    gsize size = 0;
    guchar *bytes = g_base64_decode(input.c_str(), &size);
    benchmark::DoNotOptimize(bytes);
    g_free(bytes);
}

void kestal_encode_stream(const std::string &input)
{
    kestal_base64_t *context = kestal_open_base64();
    kestal_set_base64_line_length(context, 64);
    kestal_push_encode_base64(context, input.data(), input.size());
    kestal_push_encode_base64(context, nullptr, 0);
    char *text = kestal_get_base64(context, nullptr);
    benchmark::DoNotOptimize(text);
    kestal_free(text);
    kestal_close_base64(context);
}

void openssl_encode_stream(const std::string &input)
{
    const std::unique_ptr<uint8_t[]> text(new uint8_t[input.size() / 48 * 65 + 130]);
    int length = 0;
    EVP_ENCODE_CTX *context = EVP_ENCODE_CTX_new();
    EVP_EncodeInit(context);
    EVP_EncodeUpdate(context, text.get(), &length, reinterpret_cast<const uint8_t *>(input.data()),
                     static_cast<int>(input.size()));
    EVP_EncodeFinal(context, text.get() + length, &length);
    benchmark::DoNotOptimize(text.get());
    EVP_ENCODE_CTX_free(context);
}

void run(benchmark::State &state, conversion convert, bool decodes, size_t size)
{
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
        data[i] = static_cast<char>(i * 7 + i / 256);
    gchar *text = g_base64_encode(reinterpret_cast<const guchar *>(data.data()), data.size());
    const std::string input = decodes ? text : data;
    g_free(text);
    for (auto _ : state)
        convert(input);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

const struct {
    const char *row;
    const char *who;
    conversion convert;
    bool decodes;
} sides[] = {
    {"base64 encode", "kestal", kestal_encode, false},
    {"base64 encode", "openssl", openssl_encode, false},
    {"base64 encode", "glib", glib_encode, false},
    {"base64 decode", "kestal", kestal_decode, true},
    {"base64 decode", "openssl", openssl_decode, true},
    {"base64 decode", "glib", glib_decode, true},
    {"base64 encode stream in lines", "kestal", kestal_encode_stream, false},
    {"base64 encode stream in lines", "openssl", openssl_encode_stream, false},
};

const bool registered = [] {
    for (const auto &side : sides) {
        const std::string row = side.row, who = side.who;
        benchmark::RegisterBenchmark((row + " 1 MiB:" + who).c_str(), run, side.convert, side.decodes, size_t{1} << 20);
        if (row != "base64 encode stream in lines")
            benchmark::RegisterBenchmark((row + " 48 bytes:" + who).c_str(), run, side.convert, side.decodes,
                                         size_t{48});
    }
    return true;
}();

} // namespace
