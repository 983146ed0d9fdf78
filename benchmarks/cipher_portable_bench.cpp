// The block ciphers once more, where the library, OpenSSL and nettle do without the processor's AES instructions.

#define PORTABLE_ONLY
#include "cipher_bench.cpp"
