// The block ciphers beside OpenSSL, nettle, mbedTLS and libgcrypt: 16 bytes, 1 KiB and 1 MiB in place, key schedule
// outside the loop. cipher_portable_bench.cpp makes a second program of it (mbedTLS and libgcrypt cannot be told to leave
// the processor's instructions alone, and are left out there).

#include <kestal_ulx.h>

#include "processor.hpp"

#include <benchmark/benchmark.h>
#include <gcrypt.h>
#include <mbedtls/aes.h>
#include <mbedtls/des.h>
#include <nettle/aes.h>
#include <nettle/cbc.h>
#include <nettle/cfb.h>
#include <nettle/des.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

#if defined(PORTABLE_ONLY)
constexpr bool portable = true;
#else
constexpr bool portable = false;
#endif

using transform = std::function<void(uint8_t *data, size_t size)>;

constexpr uint8_t key[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16,
                             17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

void row(const std::string &name, const std::string &who, transform run)
{
    const std::pair<const char *, size_t> sizes[] = {{"16 B", 16}, {"1 KiB", 1024}, {"1 MiB", 1 << 20}};
    for (const auto &[label, size] : sizes) {
        const std::string full = name + (portable ? " portable " : " ") + label + ":" + who;
        benchmark::RegisterBenchmark(full.c_str(), [run, bytes = size](benchmark::State &state) {
            std::vector<uint8_t> data(bytes, 0x5c);
            for (auto _ : state) {
                run(data.data(), bytes);
                benchmark::ClobberMemory();
            }
            state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
        });
    }
}

struct vector_of_start {
    alignas(16) uint8_t bytes[16] = {};
};

template <typename RoundKey>
void kestal_rows(const std::string &name, const RoundKey &round_key,
                 void *(*ecb_encrypt)(void *, uint64_t, const void *),
                 void *(*ecb_decrypt)(void *, uint64_t, const void *),
                 std::vector<std::pair<std::string, void *(*)(void *, uint64_t, void *, const void *)>> modes)
{
    const auto shared = std::make_shared<RoundKey>(round_key);
    row(name + " ECB encrypt", "kestal", [=](uint8_t *data, size_t size) { ecb_encrypt(data, size, shared.get()); });
    row(name + " ECB decrypt", "kestal", [=](uint8_t *data, size_t size) { ecb_decrypt(data, size, shared.get()); });
    for (const auto &[label, mode] : modes) {
        const auto iv = std::make_shared<vector_of_start>();
        row(name + " " + label, "kestal",
            [=, run = mode](uint8_t *data, size_t size) { run(data, size, iv->bytes, shared.get()); });
    }
}

void openssl_row(const std::string &name, const char *algorithm, bool encrypt)
{
    static OSSL_PROVIDER *providers[] = {OSSL_PROVIDER_load(nullptr, "legacy"), OSSL_PROVIDER_load(nullptr, "default")};
    (void)providers;
    EVP_CIPHER *cipher = EVP_CIPHER_fetch(nullptr, algorithm, nullptr);
    if (cipher == nullptr)
        return;
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex2(context, cipher, key, key, encrypt ? 1 : 0, nullptr);
    EVP_CIPHER_CTX_set_padding(context, 0);
    row(name, "openssl", [=](uint8_t *data, size_t size) {
        int written = 0;
        EVP_CipherUpdate(context, data, &written, data, static_cast<int>(size));
    });
}

void gcrypt_rows(const std::string &name, int algorithm, size_t key_size)
{
    const std::pair<const char *, int> modes[] = {
        {"ECB", GCRY_CIPHER_MODE_ECB}, {"CBC", GCRY_CIPHER_MODE_CBC}, {"CFB-8", GCRY_CIPHER_MODE_CFB8}};
    for (const auto &[label, mode] : modes) {
        gcry_cipher_hd_t handle = nullptr;
        gcry_cipher_open(&handle, algorithm, mode, 0);
        gcry_cipher_setkey(handle, key, key_size);
        gcry_cipher_setiv(handle, key, gcry_cipher_get_algo_blklen(algorithm));
        row(name + " " + label + " encrypt", "gcrypt",
            [=](uint8_t *data, size_t size) { gcry_cipher_encrypt(handle, data, size, nullptr, 0); });
        row(name + " " + label + " decrypt", "gcrypt",
            [=](uint8_t *data, size_t size) { gcry_cipher_decrypt(handle, data, size, nullptr, 0); });
    }
}

template <typename Context>
void nettle_rows(const std::string &name, void (*set_encrypt)(Context *, const uint8_t *),
                 void (*set_decrypt)(Context *, const uint8_t *),
                 void (*encrypt)(const Context *, size_t, uint8_t *, const uint8_t *),
                 void (*decrypt)(const Context *, size_t, uint8_t *, const uint8_t *), size_t block)
{
    const auto forward = std::make_shared<Context>(), inverse = std::make_shared<Context>();
    const auto iv = std::make_shared<vector_of_start>();
    set_encrypt(forward.get(), key);
    set_decrypt(inverse.get(), key);
    const auto call = [](auto function) { return reinterpret_cast<nettle_cipher_func *>(function); };
    row(name + " ECB encrypt", "nettle", [=](uint8_t *data, size_t size) { encrypt(forward.get(), size, data, data); });
    row(name + " ECB decrypt", "nettle", [=](uint8_t *data, size_t size) { decrypt(inverse.get(), size, data, data); });
    row(name + " CBC encrypt", "nettle", [=](uint8_t *data, size_t size) {
        cbc_encrypt(forward.get(), call(encrypt), block, iv->bytes, size, data, data);
    });
    row(name + " CBC decrypt", "nettle", [=](uint8_t *data, size_t size) {
        cbc_decrypt(inverse.get(), call(decrypt), block, iv->bytes, size, data, data);
    });
    row(name + " CFB-8 encrypt", "nettle", [=](uint8_t *data, size_t size) {
        cfb8_encrypt(forward.get(), call(encrypt), block, iv->bytes, size, data, data);
    });
    row(name + " CFB-8 decrypt", "nettle", [=](uint8_t *data, size_t size) {
        cfb8_decrypt(forward.get(), call(encrypt), block, iv->bytes, size, data, data);
    });
}

void mbedtls_aes_rows(const std::string &name, unsigned bits)
{
    const auto forward = std::make_shared<mbedtls_aes_context>(), inverse = std::make_shared<mbedtls_aes_context>();
    const auto iv = std::make_shared<vector_of_start>();
    mbedtls_aes_setkey_enc(forward.get(), key, bits);
    mbedtls_aes_setkey_dec(inverse.get(), key, bits);
    for (const int way : {MBEDTLS_AES_ENCRYPT, MBEDTLS_AES_DECRYPT}) {
        const std::string label = way == MBEDTLS_AES_ENCRYPT ? " encrypt" : " decrypt";
        const auto context = way == MBEDTLS_AES_ENCRYPT ? forward : inverse;
        row(name + " ECB" + label, "mbedtls", [=](uint8_t *data, size_t size) {
            for (size_t at = 0; at < size; at += 16)
                mbedtls_aes_crypt_ecb(context.get(), way, data + at, data + at);
        });
        row(name + " CBC" + label, "mbedtls", [=](uint8_t *data, size_t size) {
            mbedtls_aes_crypt_cbc(context.get(), way, size, iv->bytes, data, data);
        });
        row(name + " CFB-8" + label, "mbedtls", [=](uint8_t *data, size_t size) {
            mbedtls_aes_crypt_cfb8(forward.get(), way, size, iv->bytes, data, data);
        });
    }
}

void mbedtls_des_rows()
{
    const auto forward = std::make_shared<mbedtls_des_context>(), inverse = std::make_shared<mbedtls_des_context>();
    const auto iv = std::make_shared<vector_of_start>();
    mbedtls_des_setkey_enc(forward.get(), key);
    mbedtls_des_setkey_dec(inverse.get(), key);
    for (const int way : {MBEDTLS_DES_ENCRYPT, MBEDTLS_DES_DECRYPT}) {
        const std::string label = way == MBEDTLS_DES_ENCRYPT ? " encrypt" : " decrypt";
        const auto context = way == MBEDTLS_DES_ENCRYPT ? forward : inverse;
        row("DES ECB" + label, "mbedtls", [=](uint8_t *data, size_t size) {
            for (size_t at = 0; at < size; at += 8)
                mbedtls_des_crypt_ecb(context.get(), data + at, data + at);
        });
        row("DES CBC" + label, "mbedtls", [=](uint8_t *data, size_t size) {
            mbedtls_des_crypt_cbc(context.get(), way, size, iv->bytes, data, data);
        });
    }
}

#define KESTAL_ROWS(LABEL, NAME, TYPE)                                                                                 \
    do {                                                                                                               \
        TYPE round_key;                                                                                                \
        kestal_make_round_key_##NAME(&round_key, key);                                                                 \
        kestal_rows(LABEL, round_key, kestal_encrypt_##NAME##_ecb, kestal_decrypt_##NAME##_ecb,                        \
                    {{"CBC encrypt", kestal_encrypt_##NAME##_cbc},                                                     \
                     {"CBC decrypt", kestal_decrypt_##NAME##_cbc},                                                     \
                     {"CFB-8 encrypt", kestal_encrypt_##NAME##_cfb8},                                                  \
                     {"CFB-8 decrypt", kestal_decrypt_##NAME##_cfb8}});                                                \
    } while (false)

void register_rows()
{
    KESTAL_ROWS("AES-128", aes128, kestal_aes128_round_key_t);
    KESTAL_ROWS("AES-256", aes256, kestal_aes256_round_key_t);
    for (const char *bits : {"128", "256"}) {
        for (const char *mode : {"ECB", "CBC", "CFB8"}) {
            const std::string label =
                std::string("AES-") + bits + (mode[3] == '8' ? " CFB-8" : std::string(" ") + mode);
            const std::string algorithm = std::string("AES-") + bits + "-" + mode;
            openssl_row(label + " encrypt", algorithm.c_str(), true);
            openssl_row(label + " decrypt", algorithm.c_str(), false);
        }
    }
    nettle_rows<aes128_ctx>("AES-128", aes128_set_encrypt_key, aes128_set_decrypt_key, aes128_encrypt, aes128_decrypt,
                            16);
    nettle_rows<aes256_ctx>("AES-256", aes256_set_encrypt_key, aes256_set_decrypt_key, aes256_encrypt, aes256_decrypt,
                            16);
    if (portable)
        return;

    KESTAL_ROWS("AES-192", aes192, kestal_aes192_round_key_t);
    KESTAL_ROWS("DES", des, kestal_des_round_key_t);
    KESTAL_ROWS("SEED-128", seed128, kestal_seed128_round_key_t);
    for (const bool encrypt : {true, false}) {
        const std::string way = encrypt ? " encrypt" : " decrypt";
        openssl_row("AES-192 ECB" + way, "AES-192-ECB", encrypt);
        openssl_row("AES-192 CBC" + way, "AES-192-CBC", encrypt);
        openssl_row("AES-192 CFB-8" + way, "AES-192-CFB8", encrypt);
        openssl_row("DES ECB" + way, "DES-ECB", encrypt);
        openssl_row("DES CBC" + way, "DES-CBC", encrypt);
        openssl_row("DES CFB-8" + way, "DES-CFB8", encrypt);
        openssl_row("SEED-128 ECB" + way, "SEED-ECB", encrypt);
        openssl_row("SEED-128 CBC" + way, "SEED-CBC", encrypt);
    }
    gcry_check_version(nullptr);
    gcrypt_rows("AES-128", GCRY_CIPHER_AES128, 16);
    gcrypt_rows("AES-256", GCRY_CIPHER_AES256, 32);
    gcrypt_rows("SEED-128", GCRY_CIPHER_SEED, 16);
    const auto set_des = [](des_ctx *context, const uint8_t *bytes) { des_set_key(context, bytes); };
    nettle_rows<des_ctx>("DES", set_des, set_des, des_encrypt, des_decrypt, 8);
    mbedtls_aes_rows("AES-128", 128);
    mbedtls_aes_rows("AES-256", 256);
    mbedtls_des_rows();
}

} // namespace

int main(int argc, char **argv)
{
    if (portable) {
        // OpenSSL and nettle read their masks when they are loaded, so the program starts itself once more with it.
        if (std::getenv("OPENSSL_ia32cap") == nullptr) {
            setenv("OPENSSL_ia32cap", "~0x200020200000000", 1);
            setenv("NETTLE_FAT_OVERRIDE", "vendor:other", 1);
            execv("/proc/self/exe", argv);
        }
        kestal::processor::allow_only(0);
    }
    register_rows();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
