#include "support.hpp"

#include <algorithm>
#include <random>

// Cross-built tests go without: the published vectors and the inverses are left to them.
#ifdef WITH_OPENSSL
#include <openssl/evp.h>
#include <openssl/provider.h>
#endif

using kestal_test::on_every_path;

namespace {

using bytes = std::vector<uint8_t>;

bytes from_hex(const std::string &text)
{
    bytes result;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        result.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return result;
}

bytes random_bytes(size_t size)
{
    static std::mt19937 randomness(7);
    bytes result(size);
    for (uint8_t &byte : result)
        byte = static_cast<uint8_t>(randomness());
    return result;
}

enum mode { cbc, cfb8, ofb8 };
using mode_function = void *(*)(void *, uint64_t, void *, const void *);

struct cipher {
    std::string name;
    size_t key_size, block_size;
    void (*make_round_key)(void *round_key, const void *key);
    kestal_cipher_ecb_t ecb[2]; // encrypt, decrypt
    mode_function modes[3][2];
    const char *openssl[4]; // ECB, CBC, CFB-8, where OpenSSL has the same
};

// clang-format off
#define PAIR(NAME, MODE) {kestal_encrypt_##NAME##_##MODE, kestal_decrypt_##NAME##_##MODE}
#define CIPHER(NAME, KEY, BLOCK, TYPE, ...)                                                                           \
    {#NAME, KEY, BLOCK,                                                                                               \
     [](void *round_key, const void *key) { kestal_make_round_key_##NAME(static_cast<TYPE *>(round_key), key); },     \
     PAIR(NAME, ecb), {PAIR(NAME, cbc), PAIR(NAME, cfb8), PAIR(NAME, ofb8)}, {__VA_ARGS__}}
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
template <typename Function>
bytes run_mode(Function function, const void *key, bytes iv, bytes data, size_t cut)
{
    EXPECT_EQ(function(data.data(), cut, iv.data(), key), data.data());
    EXPECT_EQ(function(data.data() + cut, data.size() - cut, iv.data(), key), data.data() + cut);
    return data;
}

#ifdef WITH_OPENSSL
bytes openssl(const char *name, const bytes &key, const bytes &iv, bytes data)
{
    static OSSL_PROVIDER *legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    static OSSL_PROVIDER *standard = OSSL_PROVIDER_load(nullptr, "default");
    EXPECT_TRUE(legacy != nullptr && standard != nullptr);
    EVP_CIPHER *fetched = EVP_CIPHER_fetch(nullptr, name, nullptr);
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex2(context, fetched, key.data(), iv.data(), nullptr);
    int size = 0;
    EXPECT_EQ(EVP_EncryptUpdate(context, data.data(), &size, data.data(), static_cast<int>(data.size())), 1) << name;
    EVP_CIPHER_CTX_free(context);
    EVP_CIPHER_free(fetched);
    return data;
}
#endif

TEST(cipher, published_vectors)
{
    const auto check_block = [](const char *name, const bytes &key, const char *plain, const char *enciphered) {
        EXPECT_EQ(run_ecb(named(name), 0, key, from_hex(plain)), from_hex(enciphered)) << name;
        EXPECT_EQ(run_ecb(named(name), 1, key, from_hex(enciphered)), from_hex(plain)) << name;
    };
    // The longer variants of SEED have no standard: what they have enciphered must stay readable.
    const std::string counting = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
    const char *const under_counting_keys[][3] = {
        {"aes128", "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {"aes192", "00112233445566778899aabbccddeeff", "dda97ca4864cdfe06eaf70a0ec0d7191"},
        {"aes256", "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
        {"seed", "00000000000000000000000000000000", "c11f22f20140505084483597e4370f43"},
        {"seed192", "00000000000000000000000000000000", "526c2ba60111c4a8f6f893e0ca10ac6e"},
        {"seed256", "00000000000000000000000000000000", "64ccf67fd20d1ebae0cae22400d56320"},
    };
    const char *const under_others[][3] = {
        {"00000000000000000000000000000000", "000102030405060708090a0b0c0d0e0f", "5ebac6e0054e166819aff1cc6d346cdb"},
        {"4706480851e61be85d74bfb3fd956185", "83a2f8a288641fb9a4e9a5cc2f131c7d", "ee54d13ebcae706d226bc3142cd40d4a"},
        {"28dbc3bc49ffd87dcfa509b11d422be7", "b41e6be2eba84a148e2eed84593c5ec7", "9b9b7bfcd1813cb95d0b3618f40f5122"},
    };
    const bytes iv = from_hex(counting.substr(0, 32));
    const bytes data = from_hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");
    const struct {
        const char *cipher, *key, *cbc, *cfb8;
    } chained[] = {
        {"aes128", "2b7e151628aed2a6abf7158809cf4f3c",
         "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2", "3b79424c9c0dd436bace9e0ed4586a4f32b9"},
        {"aes192", "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
         "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a", "cda2521ef0a905ca44cd057cbf0d47a0678a"},
        {"aes256", "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d", "dc1f1a8520a64db55fcc8ac554844e889700"},
    };
    on_every_path([&] {
        for (const auto &[name, plain, enciphered] : under_counting_keys)
            check_block(name, from_hex(counting.substr(0, 2 * named(name).key_size)), plain, enciphered);
        for (const auto &[key, plain, enciphered] : under_others)
            check_block("seed", from_hex(key), plain, enciphered);
        for (const auto &each : chained) {
            const cipher &which = named(each.cipher);
            const round_key key(which, from_hex(each.key));
            for (const auto &[mode, expected, cut] :
                 {std::tuple(cbc, from_hex(each.cbc), size_t{16}), {cfb8, from_hex(each.cfb8), 5}}) {
                const bytes start(data.begin(), data.begin() + static_cast<ptrdiff_t>(expected.size()));
                EXPECT_EQ(run_mode(which.modes[mode][0], key, iv, start, cut), expected) << each.cipher;
                EXPECT_EQ(run_mode(which.modes[mode][1], key, iv, expected, 2 * cut), start) << each.cipher;
            }
        }
    });
}

#include "des_tables.inc"

TEST(cipher, des_tables)
{
    constexpr uint64_t plain_key = 0x0101010101010101;
    const auto encipher = [](uint64_t key, uint64_t plain) {
        const auto bytes_of = [](uint64_t word) {
            word = htobe64(word);
            const auto *first = reinterpret_cast<const uint8_t *>(&word);
            return bytes(first, first + sizeof word);
        };
        uint64_t enciphered;
        memcpy(&enciphered, run_ecb(named("des"), 0, bytes_of(key), bytes_of(plain)).data(), sizeof enciphered);
        return be64toh(enciphered);
    };
    for (size_t bit = 0; bit < 64; ++bit) {
        const uint64_t one = uint64_t{1} << (63 - bit);
        EXPECT_EQ(encipher(plain_key, one), des_variable_plaintext[bit]) << bit;
        if (bit % 8 != 7) {
            EXPECT_EQ(encipher(plain_key ^ one, 0), des_variable_key[bit - bit / 8]) << bit;
        }
    }
}

TEST(cipher, random_data_comes_back_and_agrees_with_openssl)
{
    const auto check = [](const cipher &which, size_t blocks) {
        SCOPED_TRACE(which.name + ", blocks: " + std::to_string(blocks));
        const bytes key = random_bytes(which.key_size), iv = random_bytes(which.block_size);
        const bytes data = random_bytes(blocks * which.block_size);
        const round_key expanded(which, key);
        bytes enciphered[4] = {run_ecb(which, 0, key, data)};
        EXPECT_EQ(run_ecb(which, 1, key, enciphered[0]), data);
        for (const mode each : {cbc, cfb8, ofb8}) {
            const size_t cut = each == cbc ? blocks / 2 * which.block_size : blocks;
            enciphered[1 + each] = run_mode(which.modes[each][0], expanded, iv, data, cut);
            EXPECT_EQ(run_mode(which.modes[each][1], expanded, iv, enciphered[1 + each], cut), data);
        }
        // OFB-8 turns its register: the standard's would take in the key stream's byte alone.
        bytes turning = iv, turned = data;
        for (uint8_t &byte : turned) {
            turning = run_ecb(which, 0, key, turning);
            byte = static_cast<uint8_t>(byte ^ turning[0]);
            std::rotate(turning.begin(), turning.begin() + 1, turning.end());
        }
        EXPECT_EQ(enciphered[1 + ofb8], turned);
#ifdef WITH_OPENSSL
        for (size_t i = 0; i < 4; ++i)
            if (which.openssl[i] != nullptr) {
                EXPECT_EQ(enciphered[i], openssl(which.openssl[i], key, iv, data)) << which.openssl[i];
            }
#endif
    };
    on_every_path([&] {
        for (const cipher &which : ciphers)
            for (const size_t blocks : {1u, 2u, 3u, 7u, 8u, 9u, 16u, 17u, 40u})
                check(which, blocks);
    });
}

TEST(cipher, triple_des_is_three_encryptions)
{
    const bytes key = random_bytes(24), block = random_bytes(8);
    bytes thrice = block;
    for (auto part = key.begin(); part != key.end(); part += 8)
        thrice = run_ecb(named("des"), 0, {part, part + 8}, thrice);
    EXPECT_EQ(run_ecb(named("3des"), 0, key, block), thrice);
}

TEST(cipher, ecb_leaves_a_partial_last_block_alone_and_cbc_takes_it_as_a_whole_one)
{
    on_every_path([] {
        for (const cipher &which : ciphers) {
            SCOPED_TRACE(which.name);
            const bytes partial = random_bytes(4), key = random_bytes(which.key_size);
            const round_key expanded(which, key);
            EXPECT_EQ(run_ecb(which, 0, key, partial), partial);
            bytes a = random_bytes(2 * which.block_size), b = a, iv_a(which.block_size), iv_b = iv_a;
            which.modes[cbc][0](a.data(), which.block_size + 1, iv_a.data(), expanded);
            which.modes[cbc][0](b.data(), 2 * which.block_size, iv_b.data(), expanded);
            EXPECT_TRUE(a == b && iv_a == iv_b);
            EXPECT_EQ(which.ecb[0](nullptr, 16, expanded), nullptr);
            EXPECT_EQ(which.modes[cbc][1](a.data(), 16, nullptr, expanded), nullptr);
            EXPECT_EQ(which.modes[cfb8][0](a.data(), 16, iv_a.data(), nullptr), nullptr);
        }
    });
}

// Whether a call leaves the first round key on the stack.
bool leaves_key(const cipher &which, mode each, int direction)
{
    const round_key key(which, random_bytes(which.key_size));
    run_mode(which.modes[each][direction], key, random_bytes(16), random_bytes(16 * 9), 16);
    // Looked for where it lies: a copy made here would go through registers, and these to the stack.
    return kestal_test::is_on_the_stack({reinterpret_cast<const char *>(key.words), 16});
}

TEST(cipher, no_key_is_left_on_the_stack)
{
    on_every_path([] {
        for (const char *name : {"aes128", "aes192", "aes256"})
            for (const mode each : {cbc, cfb8, ofb8})
                for (const int direction : {0, 1}) {
                    leaves_key(named(name), each, direction); // the dynamic linker's registers, once
                    EXPECT_FALSE(leaves_key(named(name), each, direction))
                        << name << ", mode " << each << ", direction " << direction;
                }
    });
}

class modes : public kestal_test::counted {};

// A caller's own block function, for blocks of any size: that of a cipher, which the library does not recognise in it.
kestal_cipher_ecb_t borrowed;

void *own(void *block, uint64_t size, const void *key)
{
    return borrowed(block, size, key);
}

TEST_F(modes, serve_the_librarys_ciphers_and_a_callers_own)
{
    const decltype(&kestal_encrypt_mode_cbc) generic[][2] = {PAIR(mode, cbc), PAIR(mode, cfb8), PAIR(mode, ofb8)};
    const auto check = [&](const cipher &which, mode each, int direction) {
        const size_t size = which.block_size;
        const bytes iv = random_bytes(size), input = random_bytes(20 * size);
        const round_key key(which, random_bytes(which.key_size));
        const bytes output = run_mode(which.modes[each][direction], key, iv, input, 7 * size);
        borrowed = which.ecb[each == cbc ? direction : 0];
        for (const kestal_cipher_ecb_t ecb : {borrowed, own}) {
            const auto run = [&](void *at, uint64_t length, void *moving, const void *) {
                return generic[each][direction](ecb, size, at, length, moving, key);
            };
            EXPECT_EQ(run_mode(run, key, iv, input, 7 * size), output)
                << which.name << ", mode " << each << ", direction " << direction;
        }
    };
    for (const cipher &which : ciphers)
        for (const mode each : {cbc, cfb8, ofb8})
            for (const int direction : {0, 1})
                check(which, each, direction);

    const round_key key(named("des"), bytes(8));
    const bytes before = random_bytes(200);
    bytes data = before, iv(100);
    EXPECT_EQ(kestal_encrypt_mode_cbc(own, 0, data.data(), 200, iv.data(), key), nullptr);
    EXPECT_EQ(kestal_encrypt_mode_cfb8(nullptr, 8, data.data(), 200, iv.data(), key), nullptr);
    {
        const kestal_test::failing_allocation failing(1);
        EXPECT_EQ(kestal_decrypt_mode_cbc(own, 100, data.data(), 200, iv.data(), key), nullptr);
    }
    EXPECT_EQ(data, before);
    const kestal_test::failing_allocation failing(1, 3); // CFB-8 asks again until it has its room
    EXPECT_EQ(kestal_encrypt_mode_cfb8(own, 100, data.data(), 200, iv.data(), key), data.data());
    EXPECT_TRUE(failing.happened());
    iv.assign(100, 0);
    EXPECT_EQ(kestal_decrypt_mode_cfb8(own, 100, data.data(), 200, iv.data(), key), data.data());
    EXPECT_EQ(data, before);
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

    const auto lines = [&](const std::string &head, size_t number) {
        std::string text;
        for (size_t round = 0; round < 16; ++round) {
            text += head + (round < 10 ? "[ " : "[") + std::to_string(round) + "] ";
            for (size_t i = 0; i < 48; ++i)
                text += std::to_string(key.m_keys[number].m_bits[round + i]) + (i % 8 == 7 ? "b " : "");
            text += "\n";
        }
        return text;
    };
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "round key:\n" + lines("", 0) + "triple round key:\n" +
                                                          lines("[0]", 0) + lines("[1]", 1) + lines("[2]", 2));
}

} // namespace
