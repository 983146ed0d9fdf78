// The message digests beside those of the cryptographic libraries: a long message, and a short one with the set-up.
#include <kestal_ulx.h>

#include <benchmark/benchmark.h>
#include <gcrypt.h>
#include <glib.h>
#include <nettle/md5.h>
#include <nettle/sha1.h>
#include <nettle/sha2.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

namespace {

using digest_function = void (*)(const uint8_t *data, size_t size, uint8_t *out);

void kestal_md5(const uint8_t *data, size_t size, uint8_t *out)
{
    kestal_md5_t context;
    kestal_init_md5(&context);
    kestal_md5_push(&context, data, size);
    kestal_md5_digest(&context, out);
}

void kestal_sha1(const uint8_t *data, size_t size, uint8_t *out)
{
    kestal_sha1_t context;
    kestal_init_sha1(&context);
    kestal_sha1_push(&context, data, size);
    kestal_sha1_digest(&context, out);
}

void kestal_sha256(const uint8_t *data, size_t size, uint8_t *out)
{
    kestal_sha256_t context;
    kestal_init_sha256(&context);
    kestal_sha256_push(&context, data, size);
    kestal_sha256_digest(&context, out);
}

template <const EVP_MD *(*algorithm)()>
void openssl(const uint8_t *data, size_t size, uint8_t *out)
{
    EVP_Digest(data, size, out, nullptr, algorithm(), nullptr);
}

template <typename Context, auto init, auto update, auto digest, size_t digest_size>
void nettle(const uint8_t *data, size_t size, uint8_t *out)
{
    Context context;
    init(&context);
    update(&context, size, data);
    digest(&context, digest_size, out);
}

template <int algorithm>
void gcrypt(const uint8_t *data, size_t size, uint8_t *out)
{
    gcry_md_hash_buffer(algorithm, out, data, size);
}

template <GChecksumType algorithm>
void glib(const uint8_t *data, size_t size, uint8_t *out)
{
    GChecksum *checksum = g_checksum_new(algorithm);
    g_checksum_update(checksum, data, static_cast<gssize>(size));
    gsize length = 64;
    g_checksum_get_digest(checksum, out, &length);
    g_checksum_free(checksum);
}

void run(benchmark::State &state, digest_function digest, size_t size)
{
    const std::vector<uint8_t> message(size, 'x');
    uint8_t out[64];
    for (auto _ : state) {
        digest(message.data(), message.size(), out);
        benchmark::DoNotOptimize(out);
    }
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
    {"md5", "gcrypt", gcrypt<GCRY_MD_MD5>},
    {"md5", "glib", glib<G_CHECKSUM_MD5>},
    {"sha1", "kestal", kestal_sha1},
    {"sha1", "openssl", openssl<EVP_sha1>},
    {"sha1", "nettle", nettle<sha1_ctx, nettle_sha1_init, nettle_sha1_update, nettle_sha1_digest, SHA1_DIGEST_SIZE>},
    {"sha1", "gcrypt", gcrypt<GCRY_MD_SHA1>},
    {"sha1", "glib", glib<G_CHECKSUM_SHA1>},
    {"sha256", "kestal", kestal_sha256},
    {"sha256", "openssl", openssl<EVP_sha256>},
    {"sha256", "nettle",
     nettle<sha256_ctx, nettle_sha256_init, nettle_sha256_update, nettle_sha256_digest, SHA256_DIGEST_SIZE>},
    {"sha256", "gcrypt", gcrypt<GCRY_MD_SHA256>},
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
