// The message digests beside those of the cryptographic libraries: a long message, and a short one with the set-up.
// Every side ends with the digest's text in hexadecimal, which it makes by its own means where it has some.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <gcrypt.h>
#include <glib.h>
#include <nettle/base16.h>
#include <nettle/md5.h>
#include <nettle/sha1.h>
#include <nettle/sha2.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

namespace {

using digest_function = void (*)(const uint8_t *data, size_t size);

void kestal_md5(const uint8_t *data, size_t size)
{
    kestal_md5_t context;
    kestal_init_md5(&context);
    kestal_md5_push(&context, data, size);
    benchmark::DoNotOptimize(kestal_md5_digest(&context, nullptr));
}

void kestal_sha1(const uint8_t *data, size_t size)
{
    kestal_sha1_t context;
    kestal_init_sha1(&context);
    kestal_sha1_push(&context, data, size);
    benchmark::DoNotOptimize(kestal_sha1_digest(&context, nullptr));
}

void kestal_sha256(const uint8_t *data, size_t size)
{
    kestal_sha256_t context;
    kestal_init_sha256(&context);
    kestal_sha256_push(&context, data, size);
    benchmark::DoNotOptimize(kestal_sha256_digest(&context, nullptr));
}

template <const EVP_MD *(*algorithm)()>
void openssl(const uint8_t *data, size_t size)
{
    uint8_t digest[32];
    unsigned length = 0;
    EVP_Digest(data, size, digest, &length, algorithm(), nullptr);
    char text[65];
    OPENSSL_buf2hexstr_ex(text, sizeof text, nullptr, digest, length, '\0');
    benchmark::DoNotOptimize(text);
}

template <typename Context, auto init, auto update, auto finish, size_t digest_size>
void nettle(const uint8_t *data, size_t size)
{
    Context context;
    init(&context);
    update(&context, size, data);
    uint8_t digest[digest_size];
    finish(&context, digest_size, digest);
    char text[2 * digest_size + 1];
    base16_encode_update(text, digest_size, digest);
    text[2 * digest_size] = '\0';
    benchmark::DoNotOptimize(text);
}

template <int algorithm, size_t digest_size>
void gcrypt(const uint8_t *data, size_t size)
{
    uint8_t digest[digest_size];
    gcry_md_hash_buffer(algorithm, digest, data, size);
    char text[2 * digest_size + 1];
    for (size_t i = 0; i < digest_size; ++i) {
        text[2 * i] = "0123456789ABCDEF"[digest[i] >> 4];
        text[2 * i + 1] = "0123456789ABCDEF"[digest[i] & 15];
    }
    text[2 * digest_size] = '\0';
    benchmark::DoNotOptimize(text);
}

template <GChecksumType algorithm>
void glib(const uint8_t *data, size_t size)
{
    GChecksum *checksum = g_checksum_new(algorithm);
    g_checksum_update(checksum, data, static_cast<gssize>(size));
    benchmark::DoNotOptimize(g_checksum_get_string(checksum));
    g_checksum_free(checksum);
}

void run(benchmark::State &state, digest_function digest, size_t size)
{
    const std::vector<uint8_t> message(size, 'x');
    for (auto _ : state)
        digest(message.data(), message.size());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

const struct {
    const char *row;
    const char *who;
    digest_function digest;
} sides[] = {
    {"md5", "kestal", kestal_md5},
    {"md5", "openssl", openssl<EVP_md5>},
    {"md5", "nettle", nettle<md5_ctx, nettle_md5_init, nettle_md5_update, nettle_md5_digest, MD5_DIGEST_SIZE>},
    {"md5", "gcrypt", gcrypt<GCRY_MD_MD5, 16>},
    {"md5", "glib", glib<G_CHECKSUM_MD5>},
    {"sha1", "kestal", kestal_sha1},
    {"sha1", "openssl", openssl<EVP_sha1>},
    {"sha1", "nettle", nettle<sha1_ctx, nettle_sha1_init, nettle_sha1_update, nettle_sha1_digest, SHA1_DIGEST_SIZE>},
    {"sha1", "gcrypt", gcrypt<GCRY_MD_SHA1, 20>},
    {"sha1", "glib", glib<G_CHECKSUM_SHA1>},
    {"sha256", "kestal", kestal_sha256},
    {"sha256", "openssl", openssl<EVP_sha256>},
    {"sha256", "nettle",
     nettle<sha256_ctx, nettle_sha256_init, nettle_sha256_update, nettle_sha256_digest, SHA256_DIGEST_SIZE>},
    {"sha256", "gcrypt", gcrypt<GCRY_MD_SHA256, 32>},
    {"sha256", "glib", glib<G_CHECKSUM_SHA256>},
};

const bool registered = [] {
    gcry_check_version(nullptr);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    for (const auto &side : sides) {
        const std::string row = side.row, who = side.who;
        benchmark::RegisterBenchmark((row + " 1 MiB:" + who).c_str(), run, side.digest, size_t{1} << 20);
        benchmark::RegisterBenchmark((row + " 64 bytes:" + who).c_str(), run, side.digest, size_t{64});
    }
    return true;
}();

} // namespace
