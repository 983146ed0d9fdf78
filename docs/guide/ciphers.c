#include <kestal_ulx.h>
#include <string.h>

int main(void)
{
    /* A digest and a checksum, in pieces. */
    kestal_sha256_t digest;
    kestal_init_sha256(&digest);
    kestal_sha256_push(&digest, "hel", 3);
    kestal_sha256_push(&digest, "lo", 2);
    kestal_printf("sha256 %s\n", kestal_sha256_digest(&digest, NULL));
    uint32_t crc = kestal_crc32_ieee_802_3(0, 0, "hel", 3);
    crc = kestal_crc32_ieee_802_3(0, crc, "lo", 2);
    kestal_printf("crc32  %08x\n", crc);

    /* AES-128 in CBC mode: the data must be whole blocks of 16 bytes, so the caller pads. */
    const uint8_t key[16] = "sixteen key byte";
    uint8_t data[32] = "attack at dawn, or a bit later";
    uint8_t iv[16] = {0}; /* a real one is random, and new for every message */
    kestal_aes128_round_key_t round_key;
    kestal_make_round_key_aes128(&round_key, key);
    kestal_encrypt_aes128_cbc(data, sizeof data, iv, &round_key);

    uint64_t size;
    char *text = kestal_encode_base64(data, sizeof data, &size);
    kestal_printf("base64 %s\n", text);
    uint8_t *bytes = (uint8_t *)kestal_decode_base64(text, size, &size);
    memset(iv, 0, sizeof iv); /* the calls move it on */
    kestal_decrypt_aes128_cbc(bytes, size, iv, &round_key);
    kestal_printf("plain  %s\n", (char *)bytes);
    memset(bytes, 0, size);
    kestal_free(bytes);
    kestal_free(text);
    return kestal_get_alloc_count() == 0 ? 0 : 1;
}
