// kestal-get: reads a location as a stream, writes it to a file or to standard output, and tells its size and digests.
//
// What a location is, is the library's business alone: whatever a loaded plugin opens, this program fetches.

#include <kestal_ulx.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char help[] = R"(usage: kestal-get [OPTION]... LOCATION
Reads LOCATION to its end and writes it to standard output, or to a file. A location is a file's name, or anything
else that the library opens: pipe:// (or -) is standard input.

  -o, --output FILE        write to FILE, which changes only when all has arrived; - is standard output
      --offset N           begin N bytes after the start
      --bytes N            end after N bytes
      --time S             end after S seconds, for streams that never do
      --timeout S          give up when nothing arrives for S seconds (TFTP: 16, others: never)
      --option NAME=VALUE  give the stream an option of its own
      --plugin FILE        load a plugin that opens further locations
      --debug              let the library tell what it does
  -q, --quiet              no progress, no size, no digests
  -h, --help               this text
      --version            the library's version

Size, MD5, SHA-256 and CRC-32 go to standard output, or to standard error when the data go there.
)";

constexpr size_t chunk_size = 65536;
constexpr uint64_t wait_slice = 200;         // ms between two looks at signals and time limits
constexpr uint64_t draw_pause = 100;         // ms between two drawings of the progress
constexpr uint64_t datagram_timeout = 16000; // ms until a block that has not come never will

// Ends the program: with a message, or as the signal would have it.
struct failure {
    std::string message;
};
struct interruption {
    int signal_number;
};

struct settings {
    std::string location;
    std::string output = "-";
    uint64_t offset = 0;
    std::optional<uint64_t> bytes;
    std::optional<uint64_t> time;    // ms
    std::optional<uint64_t> timeout; // ms
    std::vector<std::pair<std::string, std::string>> options;
    std::vector<std::string> plugins;
    bool is_debugging = false;
    bool is_quiet = false;

    bool writes_to_standard_output() const { return output == "-"; }
};

[[noreturn]] void fail(const std::string &what, const std::string &cause)
{
    throw failure{what + ": " + cause};
}

[[noreturn]] void fail_with_errno(const std::string &what)
{
    fail(what, std::strerror(errno));
}

// --- the command line

// A number from 0 to `most`.
template <typename Number>
Number parse_number(const char *option, const char *text, Number most)
{
    Number number{};
    const char *end = text + std::strlen(text);
    const auto [rest, error] = std::from_chars(text, end, number);
    if (error != std::errc() || rest != end || !(number >= 0 && number <= most))
        fail(option, std::string("not a number, or out of range: ") + text);
    return number;
}

uint64_t parse_bytes(const char *option, const char *text)
{
    return static_cast<uint64_t>(parse_number<int64_t>(option, text, INT64_MAX));
}

// Seconds as milliseconds.
uint64_t parse_seconds(const char *option, const char *text)
{
    return static_cast<uint64_t>(parse_number<double>(option, text, 1e9) * 1000);
}

std::pair<std::string, std::string> parse_assignment(const std::string &text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        fail("--option", "not of the form NAME=VALUE: " + text);
    return {text.substr(0, equals), text.substr(equals + 1)};
}

// Ends the program when all that was asked for has been printed.
[[noreturn]] void end_told()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        fail_with_errno("standard output");
    std::exit(EXIT_SUCCESS);
}

settings parse_command_line(int argc, char **argv)
{
    enum { offset = 256, bytes, time, timeout, option, plugin, debug, version };
    static constexpr ::option long_options[] = {{"output", required_argument, nullptr, 'o'},
                                                {"offset", required_argument, nullptr, offset},
                                                {"bytes", required_argument, nullptr, bytes},
                                                {"time", required_argument, nullptr, time},
                                                {"timeout", required_argument, nullptr, timeout},
                                                {"option", required_argument, nullptr, option},
                                                {"plugin", required_argument, nullptr, plugin},
                                                {"debug", no_argument, nullptr, debug},
                                                {"quiet", no_argument, nullptr, 'q'},
                                                {"help", no_argument, nullptr, 'h'},
                                                {"version", no_argument, nullptr, version},
                                                {nullptr, 0, nullptr, 0}};
    settings wanted;
    for (int found = 0; (found = getopt_long(argc, argv, "o:qh", long_options, nullptr)) != -1;) {
        switch (found) {
        case 'o':
            wanted.output = optarg;
            break;
        case 'q':
            wanted.is_quiet = true;
            break;
        case offset:
            wanted.offset = parse_bytes("--offset", optarg);
            break;
        case bytes:
            wanted.bytes = parse_bytes("--bytes", optarg);
            break;
        case time:
            wanted.time = parse_seconds("--time", optarg);
            break;
        case timeout:
            wanted.timeout = parse_seconds("--timeout", optarg);
            break;
        case option:
            wanted.options.push_back(parse_assignment(optarg));
            break;
        case plugin:
            wanted.plugins.emplace_back(optarg);
            break;
        case debug:
            wanted.is_debugging = true;
            break;
        case 'h':
            kestal_puts(help);
            end_told();
        case version:
            kestal_printf("kestal-get %s\n", kestal_get_ulx_version_string());
            end_told();
        default: // getopt has said what is wrong
            std::exit(EXIT_FAILURE);
        }
    }
    if (optind + 1 != argc)
        throw failure{optind == argc ? "no LOCATION given; --help tells more" : "more than one LOCATION given"};
    wanted.location = argv[optind];
    return wanted;
}

// A file that is opened must not take the place of a standard stream that the starter closed: each gets a stand-in that
// fails when it is used.
void occupy_standard_descriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0)
            fail_with_errno("/dev/null");
}

void load_plugins(const settings &wanted)
{
    for (const std::string &path : wanted.plugins) {
        char error[512];
        if (kestal_load_plugin_ex2(path.c_str(), nullptr, nullptr, nullptr, error, sizeof(error)) == KESTAL_INVALID_ID)
            fail(path, error);
    }
}

// --- signals: the first ends the transfer in order, the second ends the program

volatile std::sig_atomic_t signal_received = 0;

void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = [](int number) { signal_received = number; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN)
            sigaction(number, &action, nullptr);
    }
    // A reader that went away or a file that may not grow is a failed write, to be told like any other.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

// --- the stream

// The location as messages name it: a password in it stays hidden.
std::string presentable(std::string location)
{
    kestal_uri_t *parts = kestal_open_uri(location.c_str());
    if (parts != nullptr && parts->m_scheme != nullptr && parts->m_user != nullptr && parts->m_password != nullptr) {
        const size_t user = std::strlen(parts->m_scheme) + std::strlen("://") + std::strlen(parts->m_user) + 1;
        location.replace(user, std::strlen(parts->m_password), "***");
    }
    kestal_close_uri(parts);
    return location;
}

class input {
public:
    explicit input(const settings &wanted) : name_(presentable(wanted.location))
    {
        set_option("src", wanted.location == "-" ? "pipe://" : wanted.location);
        set_option("mode", "rb");
        set_option("debug", wanted.is_debugging ? "1" : "0");
        if (wanted.offset > 0)
            set_option("offset", std::to_string(wanted.offset));
        for (const auto &[name, value] : wanted.options)
            set_option(name, value);
        errno = 0;
        if (kestal_open_ctx(ctx_.id, "application/ulx_stream") != 0)
            fail_to_open();
        start_at(wanted.offset);
    }

    // How many bytes the whole location has, where that is known.
    std::optional<uint64_t> size() const
    {
        // Some streams fill the record and report a failure all the same.
        uint64_t size = 0;
        kestal_ctx_control(ctx_.id, KESTAL_CTX_CONTROL_GET_SIZE, &size, uint64_t{sizeof(size)});
        return size == 0 ? std::nullopt : std::optional(size);
    }

    // How long nothing may arrive when the user has not said: TFTP alone has no end of a connection to wait for.
    std::optional<uint64_t> timeout() const
    {
        return is_builtin({KESTAL_CTX_KIND_STREAM_TFTP}) ? std::optional(datagram_timeout) : std::nullopt;
    }

    // The bytes at the start that the stream could not pass over itself.
    uint64_t to_be_skipped() const { return to_be_skipped_; }

    // Whether the end is where the stream says it is; a transfer may also break off.
    bool has_certain_end() const { return is_seekable_; }

    bool wait(uint64_t milliseconds)
    {
        errno = 0;
        const int32_t ready = kestal_ctx_is_readable(ctx_.id, static_cast<int32_t>(milliseconds));
        if (ready < 0)
            fail_to_read();
        return ready > 0;
    }

    // Reads up to `most` bytes; what comes in messages is read by the message, whose rest would be lost.
    size_t read(char *buffer, uint64_t most)
    {
        errno = 0;
        const int64_t length =
            kestal_ctx_read(ctx_.id, buffer, comes_in_messages() ? chunk_size : std::min<uint64_t>(most, chunk_size));
        if (length < 0)
            fail_to_read();
        return static_cast<size_t>(length);
    }

    const std::string &name() const { return name_; }

private:
    struct context {
        uint32_t id = kestal_new_ctx();
        context() = default;
        ~context() { kestal_destroy_ctx(id); }
        context(const context &) = delete;
        context &operator=(const context &) = delete;
    };

    const kestal_ctx_t &record() const
    {
        return *static_cast<const kestal_ctx_t *>(kestal_ginstance_search(ctx_.id, nullptr));
    }

    void set_option(const std::string &name, const std::string &value)
    {
        if (kestal_ctx_set_option(ctx_.id, 0, name.c_str(), value.data(), value.size()) != 0)
            fail(name_, kestal_get_ctx_error_text(KESTAL_CTX_ERROR_NO_MEMORY));
    }

    [[noreturn]] void fail_to_open() const
    {
        const int cause = errno;
        const uint32_t error = record().m_last_error;
        if (error == KESTAL_CTX_ERROR_NOT_SUPPORTED)
            fail(name_, "not supported: no plugin opens such a location");
        const std::string text = kestal_get_ctx_error_text(error);
        fail(name_, cause == 0 ? text : text + ": " + std::strerror(cause));
    }

    [[noreturn]] void fail_to_read() const
    {
        const int cause = errno;
        fail(name_, std::string("cannot be read: ") +
                        (cause != 0 ? std::strerror(cause) : kestal_get_ctx_error_text(record().m_last_error)));
    }

    // Whether the library's own plugin serves the stream as one of these kinds.
    bool is_builtin(std::initializer_list<int32_t> kinds) const
    {
        return record().m_plugin->m_name[0] == '\0' &&
               std::find(kinds.begin(), kinds.end(), record().m_kind) != kinds.end();
    }

    bool comes_in_messages() const { return is_builtin({KESTAL_CTX_KIND_STREAM_UDP, KESTAL_CTX_KIND_STREAM_TFTP}); }

    // What can be sought is; of the rest these know no offset, and the others have resumed from the option.
    void start_at(uint64_t offset)
    {
        const int64_t wanted = static_cast<int64_t>(offset);
        is_seekable_ = kestal_ctx_seek(ctx_.id, wanted, SEEK_SET) == wanted;
        if (!is_seekable_ &&
            is_builtin({KESTAL_CTX_KIND_STREAM_PIPE, KESTAL_CTX_KIND_STREAM_FILE, KESTAL_CTX_KIND_STREAM_TCP,
                        KESTAL_CTX_KIND_STREAM_UDP, KESTAL_CTX_KIND_STREAM_TFTP}))
            to_be_skipped_ = offset;
    }

    context ctx_;
    std::string name_;
    bool is_seekable_ = false;
    uint64_t to_be_skipped_ = 0;
};

// --- the output

class output {
public:
    explicit output(const std::string &path) : name_(path == "-" ? "standard output" : path)
    {
        if (path == "-")
            descriptor_ = STDOUT_FILENO;
        else
            open(path);
    }
    ~output()
    {
        if (descriptor_ > STDOUT_FILENO)
            close(descriptor_);
        if (!temporary_.empty())
            unlink(temporary_.c_str());
    }
    output(const output &) = delete;
    output &operator=(const output &) = delete;

    void write(const char *data, size_t size)
    {
        if (kestal_write_file_all(descriptor_, data, size, -1) != 0)
            fail_with_errno(name_);
    }

    // Makes what was written the file, safe on its device.
    void finish()
    {
        if (descriptor_ == STDOUT_FILENO)
            return;
        if (!temporary_.empty() && (fchmod(descriptor_, mode_) != 0 || fsync(descriptor_) != 0))
            fail_with_errno(name_);
        if (close(std::exchange(descriptor_, -1)) != 0)
            fail_with_errno(name_);
        if (!temporary_.empty() && rename(temporary_.c_str(), target_.c_str()) != 0)
            fail_with_errno(name_);
        temporary_.clear();
    }

private:
    // A file is written beside its place and put there at the end; a device or a pipe is written as it stands.
    void open(const std::string &path)
    {
        struct stat existing = {};
        const bool exists = stat(path.c_str(), &existing) == 0;
        if (exists && (!S_ISREG(existing.st_mode) || access(path.c_str(), W_OK) != 0))
            descriptor_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
        else
            open_beside(path);
        if (descriptor_ < 0)
            fail_with_errno(name_);
        mode_ = exists ? existing.st_mode & 07777 : new_file_mode();
    }

    void open_beside(const std::string &path)
    {
        char *real_path = realpath(path.c_str(), nullptr); // the file behind a link, not the link
        target_ = real_path == nullptr ? path : real_path;
        std::free(real_path);
        std::string temporary = target_ + ".XXXXXX";
        descriptor_ = mkostemp(temporary.data(), O_CLOEXEC);
        if (descriptor_ >= 0)
            temporary_ = temporary;
    }

    static mode_t new_file_mode()
    {
        const mode_t mask = umask(0);
        umask(mask);
        return 0666 & ~mask;
    }

    std::string name_;
    std::string target_;
    std::string temporary_;
    mode_t mode_ = 0;
    int descriptor_ = -1;
};

// --- progress and report

class progress {
public:
    progress(bool is_shown, std::optional<uint64_t> total) : is_shown_(is_shown), total_(total) {}
    ~progress() { end_line(); }
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void show(uint64_t done)
    {
        const uint64_t now = kestal_time_stamp_msec();
        if (is_shown_ && now - drawn_at_ >= draw_pause) {
            draw(done);
            drawn_at_ = now;
        }
    }

    void finish(uint64_t done)
    {
        if (is_shown_)
            draw(done);
        end_line();
    }

private:
    void draw(uint64_t done)
    {
        if (total_)
            kestal_progress_bar(done, *total_, "", nullptr, " %lu of %lu bytes", done, *total_);
        else
            kestal_printf("\r%s %lu bytes", kestal_roll_string(), done);
        kestal_puts(nullptr);
        is_drawn_ = true;
    }

    void end_line()
    {
        if (std::exchange(is_drawn_, false))
            kestal_puts("\n");
    }

    bool is_shown_;
    std::optional<uint64_t> total_;
    uint64_t drawn_at_ = 0;
    bool is_drawn_ = false;
};

class digests {
public:
    digests()
    {
        kestal_init_md5(&md5_);
        kestal_init_sha256(&sha256_);
    }

    void push(const char *data, size_t size)
    {
        kestal_md5_push(&md5_, data, size);
        kestal_sha256_push(&sha256_, data, size);
        crc32_ = kestal_crc32_ieee_802_3(0, crc32_, data, size);
    }

    void print()
    {
        uint8_t md5[KESTAL_MD5_DIGEST_SIZE];
        uint8_t sha256[KESTAL_SHA256_DIGEST_SIZE];
        kestal_md5_digest(&md5_, md5);
        kestal_sha256_digest(&sha256_, sha256);
        kestal_printf("MD5     %s\n", to_hexadecimal(md5).c_str());
        kestal_printf("SHA-256 %s\n", to_hexadecimal(sha256).c_str());
        kestal_printf("CRC-32  %08x\n", crc32_);
    }

private:
    template <size_t size>
    static std::string to_hexadecimal(const uint8_t (&bytes)[size])
    {
        std::string text;
        for (const uint8_t byte : bytes) {
            char pair[3];
            kestal_snprintf(pair, sizeof(pair), "%02x", static_cast<uint32_t>(byte));
            text += pair;
        }
        return text;
    }

    kestal_md5_t md5_;
    kestal_sha256_t sha256_;
    uint32_t crc32_ = 0;
};

// --- the transfer

class transfer {
public:
    transfer(const settings &wanted, input &source, output &target)
        : wanted_(wanted), source_(source), target_(target), whole_(what_is_left(source.size())),
          timeout_(wanted.timeout ? wanted.timeout : source.timeout()),
          progress_(shows_progress(), whole_ && wanted.bytes ? std::min(*whole_, *wanted.bytes) : whole_)
    {}

    // Copies until the end, or until a limit that was set.
    void run()
    {
        uint64_t last_arrival = start_;
        uint64_t to_be_skipped = source_.to_be_skipped();
        while (!wanted_.bytes || done_ < *wanted_.bytes) {
            if (signal_received != 0)
                throw interruption{signal_received};
            const uint64_t now = kestal_time_stamp_msec();
            if (wanted_.time && now - start_ >= *wanted_.time)
                break;
            progress_.show(done_);
            if (!source_.wait(wanted_.time ? std::min(wait_slice, *wanted_.time - (now - start_)) : wait_slice)) {
                if (timeout_ && now - last_arrival >= *timeout_)
                    fail(source_.name(), "nothing arrives any more");
                continue;
            }
            const uint64_t most = wanted_.bytes ? *wanted_.bytes - done_ + to_be_skipped : UINT64_MAX;
            const size_t length = source_.read(chunk_, most);
            if (length == 0) {
                check_end(to_be_skipped);
                break;
            }
            last_arrival = now;
            const size_t skipped = static_cast<size_t>(std::min<uint64_t>(to_be_skipped, length));
            to_be_skipped -= skipped;
            keep(chunk_ + skipped, static_cast<size_t>(std::min<uint64_t>(length, most) - skipped));
        }
        progress_.finish(done_);
    }

    void report()
    {
        if (wanted_.is_quiet)
            return;
        kestal_printf("size    %lu bytes\n", done_);
        digests_.print();
    }

private:
    std::optional<uint64_t> what_is_left(std::optional<uint64_t> size) const
    {
        if (!size)
            return size;
        if (wanted_.offset > *size)
            fail(source_.name(), "ends before the offset");
        return *size - wanted_.offset;
    }

    // Progress goes where the report goes, unless the data go to the same terminal.
    bool shows_progress() const
    {
        if (wanted_.is_quiet)
            return false;
        if (wanted_.writes_to_standard_output())
            return isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) == 0;
        return isatty(STDOUT_FILENO) != 0;
    }

    void keep(const char *data, size_t size)
    {
        target_.write(data, size);
        if (!wanted_.is_quiet)
            digests_.push(data, size);
        done_ += size;
    }

    void check_end(uint64_t still_to_be_skipped) const
    {
        if (still_to_be_skipped > 0)
            fail(source_.name(), "ends before the offset");
        if (source_.has_certain_end() || !whole_)
            return;
        if (done_ < *whole_)
            fail(source_.name(),
                 "broke off after " + std::to_string(done_) + " of " + std::to_string(*whole_) + " bytes");
        if (wanted_.offset > 0 && done_ >= *whole_ + wanted_.offset)
            fail(source_.name(), "cannot begin at an offset");
    }

    const settings &wanted_;
    input &source_;
    output &target_;
    std::optional<uint64_t> whole_;
    std::optional<uint64_t> timeout_; // ms
    progress progress_;
    digests digests_;
    uint64_t start_ = kestal_time_stamp_msec();
    uint64_t done_ = 0;
    char chunk_[chunk_size];
};

void run(int argc, char **argv)
{
    occupy_standard_descriptors();
    const settings wanted = parse_command_line(argc, argv);
    if (wanted.writes_to_standard_output())
        kestal_set_puts_handler(kestal_error_puts, nullptr);
    load_plugins(wanted);
    input source(wanted);
    catch_signals();
    output target(wanted.output);
    {
        transfer copy(wanted, source, target);
        copy.run();
        target.finish();
        copy.report();
    }
    if (std::fflush(stdout) != 0)
        fail_with_errno("standard output");
}

} // namespace

int main(int argc, char **argv)
{
    try {
        run(argc, argv);
        return EXIT_SUCCESS;
    } catch (const interruption &by) {
        std::raise(by.signal_number); // the handler is gone: ends the program as its starter expects it
    } catch (const failure &because) {
        kestal_error_printf("kestal-get: %s\n", because.message.c_str());
    }
    return EXIT_FAILURE;
}
