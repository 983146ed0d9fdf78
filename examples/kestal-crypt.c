/*
 * kestal-crypt: enciphers or deciphers a file or standard input.
 *
 *     kestal-crypt encrypt --cipher aes256 --key-file secret.key --iv 000102030405060708090a0b0c0d0e0f -o out.bin in.txt
 *     kestal-crypt decrypt --cipher aes256 --key-file secret.key --iv 000102030405060708090a0b0c0d0e0f -o in.txt out.bin
 *
 * The library's ciphers work on bytes in place and pad nothing; the padding of PKCS#7 for ECB and CBC is done here.
 */
#define _DEFAULT_SOURCE      /* explicit_bzero, mkstemp, realpath */
#define _FILE_OFFSET_BITS 64 /* files of any size on 32-bit machines too */
#include <kestal_ulx.h>

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { CHUNK = 65536, LONGEST_KEY = 32, LONGEST_BLOCK = 16 };

typedef void *(*ecb_t)(void *data, uint64_t size, const void *round_key);
typedef void *(*chain_t)(void *data, uint64_t size, void *iv, const void *round_key);

/* A round-key object of any cipher. */
typedef union {
    kestal_aes128_round_key_t aes128;
    kestal_aes192_round_key_t aes192;
    kestal_aes256_round_key_t aes256;
    kestal_des_round_key_t des;
    kestal_3des_round_key_t triple_des;
    kestal_seed128_round_key_t seed128;
    kestal_seed192_round_key_t seed192;
    kestal_seed256_round_key_t seed256;
} round_key_t;

static void make_aes128(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_aes128(&round_key->aes128, key);
}

static void make_aes192(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_aes192(&round_key->aes192, key);
}

static void make_aes256(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_aes256(&round_key->aes256, key);
}

static void make_des(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_des(&round_key->des, key);
}

static void make_3des(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_3des(&round_key->triple_des, key);
}

static void make_seed128(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_seed128(&round_key->seed128, key);
}

static void make_seed192(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_seed192(&round_key->seed192, key);
}

static void make_seed256(round_key_t *round_key, const void *key)
{
    kestal_make_round_key_seed256(&round_key->seed256, key);
}

/* Each pair is encryption, then decryption. */
typedef struct {
    const char *name;
    size_t key_size;
    size_t block_size;
    void (*make_round_key)(round_key_t *round_key, const void *key);
    ecb_t ecb[2];
    chain_t cbc[2], cfb8[2], ofb8[2];
} cipher_t;

/* clang-format off */
#define PAIR(NAME, MODE) {kestal_encrypt_##NAME##_##MODE, kestal_decrypt_##NAME##_##MODE}
#define CIPHER(NAME, KEY_SIZE, BLOCK_SIZE)                                                                            \
    {#NAME, KEY_SIZE, BLOCK_SIZE, make_##NAME,                                                                        \
     PAIR(NAME, ecb), PAIR(NAME, cbc), PAIR(NAME, cfb8), PAIR(NAME, ofb8)}
/* clang-format on */

static const cipher_t ciphers[] = {
    CIPHER(aes128, 16, 16), CIPHER(aes192, 24, 16),  CIPHER(aes256, 32, 16),  CIPHER(des, 8, 8),
    CIPHER(3des, 24, 8),    CIPHER(seed128, 16, 16), CIPHER(seed192, 24, 16), CIPHER(seed256, 32, 16),
};

static const char help[] =
    "usage: kestal-crypt encrypt|decrypt [OPTION...] [INPUT]\n"
    "\n"
    "Enciphers or deciphers INPUT, or standard input when it is absent or \"-\".\n"
    "\n"
    "  --cipher NAME     aes128, aes192, aes256 (the default), seed128, seed192, seed256, des, 3des\n"
    "  --mode NAME       cbc (the default), ecb, cfb8, ofb8\n"
    "  --key HEX         the key in hexadecimal; other users of this machine may see it in the process list\n"
    "  --key-file FILE   the key's bytes\n"
    "  --iv HEX          the initialisation vector in hexadecimal (all modes but ecb)\n"
    "  --iv-file FILE    its bytes\n"
    "  -o FILE           where the result goes, when all of it is there; standard output by default\n"
    "  --help            this text\n"
    "\n"
    "ECB and CBC pad as PKCS#7 does. WARNING: nothing is authenticated. Whoever can change the enciphered data can\n"
    "change what it deciphers to, and nobody is told: protect it with a signature or a MAC. Use a fresh vector for "
    "each\n"
    "message. ECB shows which blocks are equal; DES keys can be searched through. ofb8 is this library's own rotated\n"
    "form, and 3des its own three encryptions: other programs do not read them.\n";

typedef struct {
    const cipher_t *cipher;
    const char *mode;
    int decrypting;
    unsigned char key[LONGEST_KEY];
    unsigned char iv[LONGEST_BLOCK];
    const char *input;
    const char *output;
} job_t;

static int fail(const char *what, const char *why)
{
    kestal_error_printf("kestal-crypt: %s: %s\n", what, why);
    return -1;
}

static int from_hex(const char *what, const char *text, unsigned char *bytes, size_t size)
{
    size_t i;
    if (strlen(text) != 2 * size || strspn(text, "0123456789abcdefABCDEF") != 2 * size) {
        kestal_error_printf("kestal-crypt: the %s must be %lu hexadecimal digits\n", what, (uint64_t)(2 * size));
        return -1;
    }
    for (i = 0; i < size; ++i) {
        const char digits[3] = {text[2 * i], text[2 * i + 1], '\0'};
        bytes[i] = (unsigned char)strtoul(digits, NULL, 16);
    }
    return 0;
}

static int from_file(const char *what, const char *path, unsigned char *bytes, size_t size)
{
    unsigned char room[LONGEST_KEY + 1];
    size_t got;
    FILE *file = fopen(path, "rb");
    if (file == NULL)
        return fail(path, strerror(errno));
    setvbuf(file, NULL, _IONBF, 0); /* no copy of a key in a buffer */
    got = fread(room, 1, sizeof room, file);
    fclose(file);
    if (got == size)
        memcpy(bytes, room, size);
    explicit_bzero(room, sizeof room);
    if (got == size)
        return 0;
    kestal_error_printf("kestal-crypt: %s: the %s must be %lu bytes\n", path, what, (uint64_t)size);
    return -1;
}

static int read_secret(const char *what, const char *hex, const char *path, unsigned char *bytes, size_t size)
{
    if (hex != NULL && path != NULL)
        return fail(what, "given twice");
    if (hex != NULL)
        return from_hex(what, hex, bytes, size);
    if (path != NULL)
        return from_file(what, path, bytes, size);
    return fail(what, "missing (see kestal-crypt --help)");
}

static const cipher_t *find_cipher(const char *name)
{
    size_t i;
    for (i = 0; i < sizeof ciphers / sizeof ciphers[0]; ++i)
        if (strcmp(ciphers[i].name, name) == 0)
            return &ciphers[i];
    return NULL;
}

static int is_padded(const job_t *job)
{
    return strcmp(job->mode, "ecb") == 0 || strcmp(job->mode, "cbc") == 0;
}

static void transform(job_t *job, const round_key_t *round_key, void *data, size_t size)
{
    const cipher_t *cipher = job->cipher;
    const int way = job->decrypting;
    if (strcmp(job->mode, "ecb") == 0)
        cipher->ecb[way](data, size, round_key);
    else if (strcmp(job->mode, "cbc") == 0)
        cipher->cbc[way](data, size, job->iv, round_key);
    else if (strcmp(job->mode, "cfb8") == 0)
        cipher->cfb8[way](data, size, job->iv, round_key);
    else
        cipher->ofb8[way](data, size, job->iv, round_key);
}

static size_t add_padding(unsigned char *data, size_t size, size_t block)
{
    const size_t padding = block - size % block;
    memset(data + size, (int)padding, padding);
    return size + padding;
}

/* The size without the padding, or -1 when there is none that could be right. */
static long remove_padding(const unsigned char *data, size_t size, size_t block)
{
    size_t padding, i;
    if (size == 0)
        return -1;
    padding = data[size - 1];
    if (padding == 0 || padding > block)
        return -1;
    for (i = size - padding; i < size; ++i)
        if (data[i] != padding)
            return -1;
    return (long)(size - padding);
}

static int is_at_end(FILE *input)
{
    const int next = getc(input);
    return next == EOF || ungetc(next, input) == EOF;
}

/* Chunk by chunk; CHUNK is a whole number of blocks of every cipher. */
static int run(job_t *job, const round_key_t *round_key, FILE *input, FILE *output)
{
    static unsigned char data[CHUNK + LONGEST_BLOCK];
    const char *name = job->input != NULL ? job->input : "standard input";
    const size_t block = job->cipher->block_size;
    int last;
    do {
        size_t size = fread(data, 1, CHUNK, input);
        last = is_at_end(input);
        if (ferror(input))
            return fail(name, strerror(errno));
        if (last && is_padded(job) && !job->decrypting)
            size = add_padding(data, size, block);
        if (is_padded(job) && size % block != 0)
            return fail(name, "not a whole number of blocks");
        transform(job, round_key, data, size);
        if (last && is_padded(job) && job->decrypting) {
            const long unpadded = remove_padding(data, size, block);
            if (unpadded < 0)
                return fail(name, "wrong key or vector, or not what this cipher and mode wrote");
            size = (size_t)unpadded;
        }
        if (fwrite(data, 1, size, output) != size)
            return fail(job->output != NULL ? job->output : "standard output", strerror(errno));
    } while (!last);
    if (fflush(output) != 0)
        return fail(job->output != NULL ? job->output : "standard output", strerror(errno));
    return 0;
}

/* Where the result goes. A file is written beside its place and put there when it is whole: until then what was there
 * stays, and may be what is read. */
typedef struct {
    FILE *file;
    const char *path;      /* null: standard output */
    struct stat old;       /* of the file that is there; all zeros when none is */
    char target[PATH_MAX]; /* the file behind a link, not the link */
} output_t;

static char temporary[PATH_MAX + sizeof ".kestal-crypt.XXXXXX"]; /* empty: nothing is to be removed */

static void remove_temporary(void)
{
    if (temporary[0] != '\0')
        unlink(temporary);
    temporary[0] = '\0';
}

static void end_by_signal(int number)
{
    remove_temporary();
    raise(number); /* to the default action, on return */
}

static void catch_signals(void)
{
    static const int numbers[] = {SIGINT, SIGTERM, SIGHUP};
    struct sigaction action, before;
    size_t i;
    memset(&action, 0, sizeof action);
    action.sa_handler = end_by_signal;
    action.sa_flags = (int)SA_RESETHAND;
    for (i = 0; i < sizeof numbers / sizeof numbers[0]; ++i)
        if (sigaction(numbers[i], NULL, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(numbers[i], &action, NULL);
    signal(SIGXFSZ, SIG_IGN); /* a file that may not grow is a failed write */
}

/* The name that the result is to get in the end. There is none for a device, a pipe, a file that may not be written, a
 * link to nowhere, or one to a file without a name, as /dev/stdout may be: these are written as they stand. */
static int find_target(output_t *output)
{
    struct stat found;
    if (lstat(output->path, &found) != 0 && errno == ENOENT)
        return kestal_snprintf(output->target, sizeof output->target, "%s", output->path) > 0;
    if (stat(output->path, &output->old) != 0 || !S_ISREG(output->old.st_mode) || access(output->path, W_OK) != 0)
        return 0;
    return realpath(output->path, output->target) != NULL && stat(output->target, &found) == 0 &&
           found.st_dev == output->old.st_dev && found.st_ino == output->old.st_ino;
}

static FILE *open_beside(const output_t *output)
{
    const char *slash = strrchr(output->target, '/');
    const size_t folder = slash == NULL ? 0 : (size_t)(slash - output->target) + 1;
    int descriptor;
    memcpy(temporary, output->target, folder);
    strcpy(temporary + folder, ".kestal-crypt.XXXXXX");
    descriptor = mkstemp(temporary);
    if (descriptor < 0)
        temporary[0] = '\0';
    return descriptor < 0 ? NULL : fdopen(descriptor, "wb");
}

static int open_output(output_t *output)
{
    if (output->path == NULL)
        output->file = stdout;
    else if (find_target(output))
        output->file = open_beside(output);
    else
        output->file = fopen(output->path, "wb");
    return output->file == NULL ? fail(output->path, strerror(errno)) : 0;
}

/* Owner, group and mode stay. Where this process may not give the file to its group, the group's rights go. */
static int keep_rights(const output_t *output)
{
    const int descriptor = fileno(output->file);
    const mode_t mask = umask(0);
    mode_t mode = 0666 & ~mask;
    umask(mask);
    if (output->old.st_mode != 0) {
        mode = output->old.st_mode & 0777;
        if (fchown(descriptor, output->old.st_uid, output->old.st_gid) != 0 &&
            fchown(descriptor, (uid_t)-1, output->old.st_gid) != 0)
            mode &= ~(mode_t)070;
    }
    return fchmod(descriptor, mode);
}

static int close_output(output_t *output, int result)
{
    const int is_beside = temporary[0] != '\0';
    if (output->file == stdout)
        return result;
    if (is_beside && result == 0 && (keep_rights(output) != 0 || fsync(fileno(output->file)) != 0))
        result = fail(output->path, strerror(errno));
    if (fclose(output->file) != 0 && result == 0)
        result = fail(output->path, strerror(errno));
    if (is_beside && result == 0 && rename(temporary, output->target) != 0)
        result = fail(output->path, strerror(errno));
    if (result == 0)
        temporary[0] = '\0';
    return result;
}

static int open_and_run(job_t *job, const round_key_t *round_key)
{
    static output_t output;
    FILE *input = job->input != NULL ? fopen(job->input, "rb") : stdin;
    int result;
    if (input == NULL)
        return fail(job->input, strerror(errno));
    output.path = job->output;
    catch_signals();
    result = open_output(&output);
    if (result == 0)
        result = close_output(&output, run(job, round_key, input, output.file));
    remove_temporary();
    if (input != stdin)
        fclose(input);
    return result;
}

static int usage(void)
{
    kestal_error_puts(help);
    return 2;
}

int main(int argc, char **argv)
{
    job_t job = {.mode = "cbc"};
    const char *cipher = "aes256", *key = NULL, *key_file = NULL, *iv = NULL, *iv_file = NULL;
    round_key_t round_key;
    int i, result;

    if (argc > 1 && strcmp(argv[1], "--help") == 0) {
        kestal_puts(help);
        return fflush(stdout) != 0 || ferror(stdout);
    }
    if (argc < 2 || (strcmp(argv[1], "encrypt") != 0 && strcmp(argv[1], "decrypt") != 0))
        return usage();
    job.decrypting = strcmp(argv[1], "decrypt") == 0;
    for (i = 2; i < argc; ++i) {
        const struct {
            const char *name;
            const char **value;
        } options[] = {{"--cipher", &cipher}, {"--mode", &job.mode},   {"--key", &key},    {"--key-file", &key_file},
                       {"--iv", &iv},         {"--iv-file", &iv_file}, {"-o", &job.output}};
        size_t o = 0;
        while (o < sizeof options / sizeof options[0] && strcmp(argv[i], options[o].name) != 0)
            ++o;
        if (o < sizeof options / sizeof options[0] && i + 1 < argc)
            *options[o].value = argv[++i];
        else if ((argv[i][0] != '-' || argv[i][1] == '\0') && job.input == NULL)
            job.input = argv[i];
        else
            return usage();
    }
    if (job.input != NULL && strcmp(job.input, "-") == 0)
        job.input = NULL;
    if (job.output != NULL && strcmp(job.output, "-") == 0)
        job.output = NULL;

    job.cipher = find_cipher(cipher);
    if (job.cipher == NULL)
        return -fail(cipher, "unknown cipher (see kestal-crypt --help)");
    if (strcmp(job.mode, "cbc") != 0 && strcmp(job.mode, "ecb") != 0 && strcmp(job.mode, "cfb8") != 0 &&
        strcmp(job.mode, "ofb8") != 0)
        return -fail(job.mode, "unknown mode (see kestal-crypt --help)");
    if (read_secret("key", key, key_file, job.key, job.cipher->key_size) != 0)
        return 1;
    if (strcmp(job.mode, "ecb") != 0 &&
        read_secret("initialisation vector", iv, iv_file, job.iv, job.cipher->block_size) != 0)
        return 1;

    job.cipher->make_round_key(&round_key, job.key);
    result = open_and_run(&job, &round_key);
    explicit_bzero(&round_key, sizeof round_key);
    explicit_bzero(job.key, sizeof job.key);
    return result == 0 ? 0 : 1;
}
