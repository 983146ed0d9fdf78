#include "support.hpp"

#include "processor.hpp"

#include <cstring>
#include <random>

namespace processor = kestal::processor;

// Cross-built tests go without: the published vectors and the inverses are left to them.
#ifdef WITH_OPENSSL
#include <openssl/evp.h>
#include <openssl/provider.h>
#endif

namespace {

using bytes = std::vector<uint8_t>;

bytes from_hex(const std::string &text)
{
    bytes result;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        result.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return result;
}

std::mt19937 randomness(7);

bytes random_bytes(size_t size)
{
    bytes result(size);
    for (uint8_t &byte : result)
        byte = static_cast<uint8_t>(randomness());
    return result;
}

using ecb_function = void *(*)(void *, uint64_t, const void *);
using mode_function = void *(*)(void *, uint64_t, void *, const void *);

struct cipher {
    std::string name;
    size_t key_size, block_size;
    void (*make_round_key)(void *round_key, const void *key);
    ecb_function ecb[2]; // encrypt, decrypt
    mode_function cbc[2], cfb8[2], ofb8[2];
    const char *openssl[3]; // ECB, CBC, CFB-8, where OpenSSL has the same
};

// clang-format off
#define PAIR(NAME, MODE) {kestal_encrypt_##NAME##_##MODE, kestal_decrypt_##NAME##_##MODE}
#define CIPHER(NAME, KEY, BLOCK, TYPE, ...)                                                                           \
    {#NAME, KEY, BLOCK,                                                                                               \
     [](void *round_key, const void *key) { kestal_make_round_key_##NAME(static_cast<TYPE *>(round_key), key); },     \
     PAIR(NAME, ecb), PAIR(NAME, cbc), PAIR(NAME, cfb8), PAIR(NAME, ofb8), {__VA_ARGS__}}
// clang-format on

const cipher ciphers[] = {
    CIPHER(aes128, 16, 16, kestal_aes128_round_key_t, "AES-128-ECB", "AES-128-CBC", "AES-128-CFB8"),
    CIPHER(aes192, 24, 16, kestal_aes192_round_key_t, "AES-192-ECB", "AES-192-CBC", "AES-192-CFB8"),
    CIPHER(aes256, 32, 16, kestal_aes256_round_key_t, "AES-256-ECB", "AES-256-CBC", "AES-256-CFB8"),
    CIPHER(des, 8, 8, kestal_des_round_key_t, "DES-ECB", "DES-CBC", "DES-CFB8"),
    CIPHER(3des, 24, 8, kestal_3des_round_key_t, nullptr),
    CIPHER(seed128, 16, 16, kestal_seed128_round_key_t, "SEED-ECB", "SEED-CBC", nullptr),
    CIPHER(seed, 16, 16, kestal_seed128_round_key_t, "SEED-ECB", "SEED-CBC", nullptr),
    CIPHER(seed192, 24, 16, kestal_seed192_round_key_t, nullptr),
    CIPHER(seed256, 32, 16, kestal_seed256_round_key_t, nullptr),
};

const cipher &named(const std::string &name)
{
    return *std::find_if(std::begin(ciphers), std::end(ciphers), [&](const cipher &each) { return each.name == name; });
}

struct round_key {
    round_key(const cipher &which, const bytes &key) { which.make_round_key(words, key.data()); }
    operator const void *() const { return words; }
    uint64_t words[2304 / 8];
};

bytes run_ecb(const cipher &which, int direction, const bytes &key, bytes data)
{
    EXPECT_EQ(which.ecb[direction](data.data(), data.size(), round_key(which, key)), data.data());
    return data;
}

// In two calls, so that the register must carry over.
bytes run_mode(mode_function mode, const round_key &key, bytes iv, bytes data, size_t cut)
{
    EXPECT_EQ(mode(data.data(), cut, iv.data(), key), data.data());
    EXPECT_EQ(mode(data.data() + cut, data.size() - cut, iv.data(), key), data.data() + cut);
    return data;
}

#ifdef WITH_OPENSSL
bytes openssl(const char *name, bool encrypt, const bytes &key, const bytes &iv, const bytes &data)
{
    static OSSL_PROVIDER *legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    static OSSL_PROVIDER *standard = OSSL_PROVIDER_load(nullptr, "default");
    EXPECT_TRUE(legacy != nullptr && standard != nullptr);
    EVP_CIPHER *fetched = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex2(context, fetched, key.data(), iv.data(), encrypt ? 1 : 0, nullptr);
    EVP_CIPHER_CTX_set_padding(context, 0);
    bytes result(data.size() + 32);
    int size = 0;
    EXPECT_EQ(EVP_CipherUpdate(context, result.data(), &size, data.data(), static_cast<int>(data.size())), 1) << name;
    result.resize(static_cast<size_t>(size));
    EVP_CIPHER_CTX_free(context);
    EVP_CIPHER_free(fetched);
    return result;
}
#endif

// Every test runs with the processor's instructions and without.
class ciphers_test : public testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override { processor::allow_only(GetParam()); }
    void TearDown() override { processor::allow_only(processor::every_feature); }
};

INSTANTIATE_TEST_SUITE_P(cipher, ciphers_test, testing::Values(0u, processor::every_feature), [](const auto &each) {
    return each.param == 0 ? std::string("portable") : std::string("processor");
});

TEST_P(ciphers_test, published_vectors)
{
    const struct {
        const char *cipher, *key, *plain, *enciphered;
    } blocks[] = {
        {"aes128", "000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff",
         "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {"aes192", "000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
         "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {"aes256", "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
         "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
        {"seed128", "00000000000000000000000000000000", "000102030405060708090a0b0c0d0e0f",
         "5ebac6e0054e166819aff1cc6d346cdb"},
        {"seed128", "000102030405060708090a0b0c0d0e0f", "00000000000000000000000000000000",
         "c11f22f20140505084483597e4370f43"},
        {"seed128", "4706480851e61be85d74bfb3fd956185", "83a2f8a288641fb9a4e9a5cc2f131c7d",
         "ee54d13ebcae706d226bc3142cd40d4a"},
        {"seed128", "28dbc3bc49ffd87dcfa509b11d422be7", "b41e6be2eba84a148e2eed84593c5ec7",
         "9b9b7bfcd1813cb95d0b3618f40f5122"},
    };
    for (const auto &each : blocks) {
        const cipher &which = named(each.cipher);
        const bytes key = from_hex(each.key);
        EXPECT_EQ(run_ecb(which, 0, key, from_hex(each.plain)), from_hex(each.enciphered)) << each.cipher;
        EXPECT_EQ(run_ecb(which, 1, key, from_hex(each.enciphered)), from_hex(each.plain)) << each.cipher;
    }

    const bytes iv = from_hex("000102030405060708090a0b0c0d0e0f");
    const bytes plain = from_hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                                 "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const struct {
        const char *cipher, *key, *cbc, *cfb8;
    } chained[] = {
        {"aes128", "2b7e151628aed2a6abf7158809cf4f3c",
         "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
         "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7",
         "3b79424c9c0dd436bace9e0ed4586a4f32b9"},
        {"aes192", "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
         "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
         "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd",
         "cda2521ef0a905ca44cd057cbf0d47a0678a"},
        {"aes256", "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
         "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b",
         "dc1f1a8520a64db55fcc8ac554844e889700"},
    };
    for (const auto &each : chained) {
        const cipher &which = named(each.cipher);
        const round_key key(which, from_hex(each.key));
        EXPECT_EQ(run_mode(which.cbc[0], key, iv, plain, 16), from_hex(each.cbc)) << each.cipher;
        EXPECT_EQ(run_mode(which.cbc[1], key, iv, from_hex(each.cbc), 48), plain) << each.cipher;
        const bytes start(plain.begin(), plain.begin() + 18);
        EXPECT_EQ(run_mode(which.cfb8[0], key, iv, start, 5), from_hex(each.cfb8)) << each.cipher;
        EXPECT_EQ(run_mode(which.cfb8[1], key, iv, from_hex(each.cfb8), 9), start) << each.cipher;
    }
}

// The variable-plaintext and variable-key tables, their values computed with OpenSSL: the key 01...01 with one bit of the
// plaintext set, from the first on, and the plaintext 0 with one bit of the key changed, parity bits left out.
constexpr uint64_t des_variable_plaintext[64] = {
    0x95f8a5e5dd31d900, 0xdd7f121ca5015619, 0x2e8653104f3834ea, 0x4bd388ff6cd81d4f, 0x20b9e767b2fb1456,
    0x55579380d77138ef, 0x6cc5defaaf04512f, 0x0d9f279ba5d87260, 0xd9031b0271bd5a0a, 0x424250b37c3dd951,
    0xb8061b7ecd9a21e5, 0xf15d0f286b65bd28, 0xadd0cc8d6e5deba1, 0xe6d5f82752ad63d1, 0xecbfe3bd3f591a5e,
    0xf356834379d165cd, 0x2b9f982f20037fa9, 0x889de068a16f0be6, 0xe19e275d846a1298, 0x329a8ed523d71aec,
    0xe7fce22557d23c97, 0x12a9f5817ff2d65d, 0xa484c3ad38dc9c19, 0xfbe00a8a1ef8ad72, 0x750d079407521363,
    0x64feed9c724c2faf, 0xf02b263b328e2b60, 0x9d64555a9a10b852, 0xd106ff0bed5255d7, 0xe1652c6b138c64a5,
    0xe428581186ec8f46, 0xaeb5f5ede22d1a36, 0xe943d7568aec0c5c, 0xdf98c8276f54b04b, 0xb160e4680f6c696f,
    0xfa0752b07d9c4ab8, 0xca3a2b036dbc8502, 0x5e0905517bb59bcf, 0x814eeb3b91d90726, 0x4d49db1532919c9f,
    0x25eb5fc3f8cf0621, 0xab6a20c0620d1c6f, 0x79e90dbc98f92cca, 0x866ecedd8072bb0e, 0x8b54536f2f3e64a8,
    0xea51d3975595b86b, 0xcaffc6ac4542de31, 0x8dd45a2ddf90796c, 0x1029d55e880ec2d0, 0x5d86cb23639dbea9,
    0x1d1ca853ae7c0c5f, 0xce332329248f3228, 0x8405d1abe24fb942, 0xe643d78090ca4207, 0x48221b9937748a23,
    0xdd7c0bbd61fafd54, 0x2fbc291a570db5c4, 0xe07c30d7e4e26e12, 0x0953e2258e8e90a1, 0x5b711bc4ceebf2ee,
    0xcc083f1e6d9e85f6, 0xd2fd8867d50d2dfe, 0x06e7ea22ce92708f, 0x166b40b44aba4bd6};
constexpr uint64_t des_variable_key[56] = {
    0x95a8d72813daa94d, 0x0eec1487dd8c26d5, 0x7ad16ffb79c45926, 0xd3746294ca6a6cf3, 0x809f5f873c1fd761,
    0xc02faffec989d1fc, 0x4615aa1d33e72f10, 0x2055123350c00858, 0xdf3b99d6577397c8, 0x31fe17369b5288c9,
    0xdfdd3cc64dae1642, 0x178c83ce2b399d94, 0x50f636324a9b7f80, 0xa8468ee3bc18f06d, 0xa2dc9e92fd3cde92,
    0xcac09f797d031287, 0x90ba680b22aeb525, 0xce7a24f350e280b6, 0x882bff0aa01a0b87, 0x25610288924511c2,
    0xc71516c29c75d170, 0x5199c29a52c9f059, 0xc22f0a294a71f29f, 0xee371483714c02ea, 0xa81fbd448f9e522f,
    0x4f644c92e192dfed, 0x1afa9a66a6df92ae, 0xb3c1cc715cb879d8, 0x19d032e64ab0bd8b, 0x3cfaa7a7dc8720dc,
    0xb7265f7f447ac6f3, 0x9db73b3c0d163f54, 0x8181b65babf4a975, 0x93c9b64042eaa240, 0x5570530829705592,
    0x8638809e878787a0, 0x41b9a79af79ac208, 0x7a9be42f2009a892, 0x29038d56ba6d2745, 0x5495c6abf1e5df51,
    0xae13dbd561488933, 0x024d1ffa8904e389, 0xd1399712f99bf02e, 0x14c1d7c1cffec79e, 0x1de5279dae3bed6f,
    0xe941a33f85501303, 0xda99dbbc9a03f379, 0xb7fc92f91d8e92e9, 0xae8e5caa3ca04e85, 0x9cc62df43b6eed74,
    0xd863dbb5c59a91a0, 0xa1ab2190545b91d7, 0x0875041e64c570f7, 0x5a594528bebef1cc, 0xfcdb3291de21f0c0,
    0x869efd7f9f265a09};

bytes big_endian(uint64_t word)
{
    bytes result(8);
    for (uint8_t &byte : result) {
        byte = static_cast<uint8_t>(word >> 56);
        word <<= 8;
    }
    return result;
}

TEST(cipher, des_tables)
{
    constexpr uint64_t plain_key = 0x0101010101010101;
    size_t key_bit = 0;
    for (size_t bit = 0; bit < 64; ++bit) {
        const uint64_t one = uint64_t{1} << (63 - bit);
        EXPECT_EQ(run_ecb(named("des"), 0, big_endian(plain_key), big_endian(one)),
                  big_endian(des_variable_plaintext[bit]));
        if (bit % 8 == 7)
            continue;
        EXPECT_EQ(run_ecb(named("des"), 0, big_endian(plain_key ^ one), bytes(8)),
                  big_endian(des_variable_key[key_bit++]));
    }
}

TEST_P(ciphers_test, agree_with_openssl_on_random_data)
{
    for (const cipher &which : ciphers) {
        for (size_t blocks : {1u, 2u, 3u, 7u, 8u, 9u, 16u, 17u, 40u}) {
            const bytes key = random_bytes(which.key_size), iv = random_bytes(which.block_size);
            const bytes data = random_bytes(blocks * which.block_size);
            const round_key expanded(which, key);
            for (int direction : {0, 1}) {
                const auto same = [&]([[maybe_unused]] int mode, [[maybe_unused]] const bytes &result) {
#ifdef WITH_OPENSSL
                    if (which.openssl[mode] == nullptr)
                        return;
                    EXPECT_EQ(result, openssl(which.openssl[mode], direction == 0, key, iv, data))
                        << which.openssl[mode] << ' ' << blocks << ' ' << direction;
#endif
                };
                same(0, run_ecb(which, direction, key, data));
                same(1, run_mode(which.cbc[direction], expanded, iv, data, blocks / 2 * which.block_size));
                same(2, run_mode(which.cfb8[direction], expanded, iv, data, blocks));
            }
            // What OpenSSL does not have is held against its own inverse.
            EXPECT_EQ(run_ecb(which, 1, key, run_ecb(which, 0, key, data)), data) << which.name;
            EXPECT_EQ(run_mode(which.cbc[1], expanded, iv, run_mode(which.cbc[0], expanded, iv, data, 0), 0), data);
            EXPECT_EQ(run_mode(which.cfb8[1], expanded, iv, run_mode(which.cfb8[0], expanded, iv, data, 1), 3), data);
        }
    }
}

TEST_P(ciphers_test, kept_definitions)
{
    // Triple DES is three encryptions, so equal keys do not fall back to single DES.
    const bytes key = random_bytes(24), block = random_bytes(8);
    const bytes parts[3] = {bytes(key.begin(), key.begin() + 8), bytes(key.begin() + 8, key.begin() + 16),
                            bytes(key.begin() + 16, key.end())};
    bytes expected = block;
    for (const bytes &part : parts)
        expected = run_ecb(named("des"), 0, part, expected);
    EXPECT_EQ(run_ecb(named("3des"), 0, key, block), expected);
    bytes tripled = parts[0];
    for (int i = 0; i < 2; ++i)
        tripled.insert(tripled.end(), parts[0].begin(), parts[0].end());
    EXPECT_NE(run_ecb(named("3des"), 0, tripled, block), run_ecb(named("des"), 0, parts[0], block));

    for (const cipher &which : ciphers) {
        const bytes each_key = random_bytes(which.key_size), iv = random_bytes(which.block_size);
        const round_key expanded(which, each_key);

        bytes partial = random_bytes(2 * which.block_size + 4), whole = partial;
        partial = run_ecb(which, 0, each_key, partial);
        EXPECT_EQ(std::memcmp(&partial[2 * which.block_size], &whole[2 * which.block_size], 4), 0) << which.name;
        EXPECT_NE(std::memcmp(&partial[which.block_size], &whole[which.block_size], which.block_size), 0);

        // OFB-8 turns its register: the standard's would take in the key stream's byte alone.
        const bytes data = random_bytes(37);
        bytes turned = iv, stream = data;
        for (uint8_t &byte : stream) {
            turned = run_ecb(which, 0, each_key, turned);
            byte = static_cast<uint8_t>(byte ^ turned[0]);
            std::rotate(turned.begin(), turned.begin() + 1, turned.end());
        }
        EXPECT_EQ(run_mode(which.ofb8[0], expanded, iv, data, 11), stream) << which.name;
        EXPECT_EQ(run_mode(which.ofb8[1], expanded, iv, stream, 20), data) << which.name;

        // CBC takes a partial last block as a whole one.
        bytes a = random_bytes(2 * which.block_size), b = a, iv_a = iv, iv_b = iv;
        which.cbc[0](a.data(), which.block_size + 1, iv_a.data(), expanded);
        which.cbc[0](b.data(), 2 * which.block_size, iv_b.data(), expanded);
        EXPECT_EQ(a, b);
        EXPECT_EQ(iv_a, iv_b);

        EXPECT_EQ(which.ecb[0](nullptr, 16, expanded), nullptr);
        EXPECT_EQ(which.cbc[1](a.data(), 16, nullptr, expanded), nullptr);
        EXPECT_EQ(which.cfb8[0](a.data(), 16, iv_a.data(), nullptr), nullptr);
    }
}

TEST(cipher, every_key_bit_of_the_longer_seed_variants_counts)
{
    for (const char *name : {"seed192", "seed256"}) {
        const cipher &which = named(name);
        bytes key = random_bytes(which.key_size);
        const bytes block(16), reference = run_ecb(which, 0, key, block);
        for (size_t bit = 0; bit < 8 * key.size(); ++bit) {
            key[bit / 8] = static_cast<uint8_t>(key[bit / 8] ^ 1u << bit % 8);
            EXPECT_NE(run_ecb(which, 0, key, block), reference) << name << " bit " << bit;
            key[bit / 8] = static_cast<uint8_t>(key[bit / 8] ^ 1u << bit % 8);
        }
    }
}

// A caller's own block function: any size of block, reversible, and different at each position.
void *toy_encrypt(void *block, uint64_t size, const void *key)
{
    uint8_t *at = static_cast<uint8_t *>(block), previous = *static_cast<const uint8_t *>(key);
    for (uint64_t i = 0; i < size; ++i)
        previous = at[i] = static_cast<uint8_t>((at[i] ^ previous) + i + 1);
    return block;
}

void *toy_decrypt(void *block, uint64_t size, const void *key)
{
    uint8_t *at = static_cast<uint8_t *>(block), previous = *static_cast<const uint8_t *>(key);
    for (uint64_t i = 0; i < size; ++i) {
        const uint8_t enciphered = at[i];
        at[i] = static_cast<uint8_t>(static_cast<uint8_t>(enciphered - i - 1) ^ previous);
        previous = enciphered;
    }
    return block;
}

class modes : public kestal_test::counted {};

TEST_F(modes, serve_a_callers_own_cipher)
{
    const uint8_t key = 0x5a;
    for (size_t size : {1u, 3u, 16u, 32u, 33u, 64u, 100u}) {
        const bytes iv = random_bytes(size), data = random_bytes(6 * size);
        bytes expected = data, chain = iv;
        for (size_t at = 0; at < data.size(); at += size) {
            for (size_t i = 0; i < size; ++i)
                expected[at + i] = static_cast<uint8_t>(expected[at + i] ^ chain[i]);
            toy_encrypt(&expected[at], size, &key);
            chain.assign(&expected[at], &expected[at] + size);
        }
        bytes result = data, moved = iv;
        EXPECT_EQ(kestal_encrypt_mode_cbc(toy_encrypt, size, result.data(), result.size(), moved.data(), &key),
                  result.data());
        EXPECT_EQ(result, expected);
        EXPECT_EQ(moved, chain);
        moved = iv;
        kestal_decrypt_mode_cbc(toy_decrypt, size, result.data(), result.size(), moved.data(), &key);
        EXPECT_EQ(result, data);

        moved = iv;
        expected = data;
        for (uint8_t &byte : expected) {
            bytes scratch = moved;
            toy_encrypt(scratch.data(), size, &key);
            byte = static_cast<uint8_t>(byte ^ scratch[0]);
            moved.erase(moved.begin());
            moved.push_back(byte);
        }
        moved = iv;
        kestal_encrypt_mode_cfb8(toy_encrypt, size, result.data(), result.size(), moved.data(), &key);
        EXPECT_EQ(result, expected) << size;
        moved = iv;
        kestal_decrypt_mode_cfb8(toy_encrypt, size, result.data(), result.size(), moved.data(), &key);
        EXPECT_EQ(result, data) << size;
        for (auto ofb8 : {kestal_encrypt_mode_ofb8, kestal_decrypt_mode_ofb8}) {
            moved = iv;
            ofb8(toy_encrypt, size, result.data(), result.size(), moved.data(), &key);
        }
        EXPECT_EQ(result, data) << size;
    }
}

TEST_F(modes, do_the_same_as_the_named_functions_and_refuse_nonsense)
{
    for (const cipher &which : ciphers) {
        const round_key key(which, random_bytes(which.key_size));
        const bytes iv = random_bytes(which.block_size), data = random_bytes(20 * which.block_size);
        const auto same = [&](auto mode, ecb_function ecb, mode_function named_mode) {
            bytes a = data, b = data, iv_a = iv, iv_b = iv;
            mode(ecb, which.block_size, a.data(), a.size(), iv_a.data(), key);
            named_mode(b.data(), b.size(), iv_b.data(), key);
            EXPECT_EQ(a, b) << which.name;
            EXPECT_EQ(iv_a, iv_b) << which.name;
        };
        same(kestal_encrypt_mode_cbc, which.ecb[0], which.cbc[0]);
        same(kestal_decrypt_mode_cbc, which.ecb[1], which.cbc[1]);
        same(kestal_encrypt_mode_cfb8, which.ecb[0], which.cfb8[0]);
        same(kestal_decrypt_mode_cfb8, which.ecb[0], which.cfb8[1]);
        same(kestal_encrypt_mode_ofb8, which.ecb[0], which.ofb8[0]);
    }

    const uint8_t key = 1;
    bytes data = random_bytes(200), iv(100);
    const bytes before = data;
    EXPECT_EQ(kestal_encrypt_mode_cbc(toy_encrypt, 0, data.data(), 200, iv.data(), &key), nullptr);
    EXPECT_EQ(kestal_encrypt_mode_cfb8(nullptr, 8, data.data(), 200, iv.data(), &key), nullptr);
    {
        const kestal_test::failing_allocation failing(1);
        EXPECT_EQ(kestal_decrypt_mode_cbc(toy_decrypt, 100, data.data(), 200, iv.data(), &key), nullptr);
        EXPECT_EQ(data, before);
    }
    const kestal_test::failing_allocation failing(1); // CFB-8 asks again until it has its room
    EXPECT_EQ(kestal_encrypt_mode_cfb8(toy_encrypt, 100, data.data(), 200, iv.data(), &key), data.data());
    EXPECT_TRUE(failing.happened());
}

TEST(cipher, round_key_dumps_overlap)
{
    kestal_3des_round_key_t key;
    for (size_t i = 0; i < sizeof key; ++i)
        reinterpret_cast<uint8_t *>(&key)[i] = i / 7 % 2;
    testing::internal::CaptureStdout();
    kestal_dump_round_key_des(&key.m_keys[0]);
    kestal_dump_round_key_3des(&key);
    kestal_puts(nullptr);
    const std::string output = testing::internal::GetCapturedStdout();

    const auto line = [&](const std::string &head, size_t key_number, size_t round) {
        std::string text = head;
        for (size_t i = 0; i < 48; ++i)
            text += std::string(1, static_cast<char>('0' + key.m_keys[key_number].m_bits[round + i])) +
                    (i % 8 == 7 ? "b " : "");
        return text + "\n";
    };
    const auto number = [](size_t n) { return (n < 10 ? " " : "") + std::to_string(n); };
    std::string expected = "round key:\n";
    for (size_t round = 0; round < 16; ++round)
        expected += line("[" + number(round) + "] ", 0, round);
    expected += "triple round key:\n";
    for (size_t each = 0; each < 3; ++each)
        for (size_t round = 0; round < 16; ++round)
            expected += line("[" + std::to_string(each) + "][" + number(round) + "] ", each, round);
    EXPECT_EQ(output, expected);
}

} // namespace
