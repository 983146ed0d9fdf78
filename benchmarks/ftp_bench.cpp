// FTP clients side by side, each with one session: a large file and small ones from the same server (vsftpd, which
// wants root's rights) into memory that is used again.
#include <kestal_ulx.h>

#include "peer_process.hpp"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <fstream>
#include <optional>
#include <string>

namespace {

constexpr size_t large_size = 64 << 20;
constexpr size_t small_size = 1000;

class service {
public:
    service()
    {
        std::filesystem::create_directory(folder_.path() + "/root");
        std::filesystem::create_directory(folder_.path() + "/empty");
        std::ofstream(folder_.path() + "/root/large") << std::string(large_size, 'x');
        std::ofstream(folder_.path() + "/root/small") << std::string(small_size, 'x');
        const std::string settings = folder_.path() + "/vsftpd.conf";
        std::ofstream(settings) << "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" << port_
                                << "\nbackground=NO\nanonymous_enable=YES\nanon_root=" << folder_.path()
                                << "/root\nftp_username=daemon\nnopriv_user=daemon\nsecure_chroot_dir="
                                << folder_.path() << "/empty\nseccomp_sandbox=NO\nxferlog_enable=NO\n";
        server_.emplace(std::vector<std::string>{kestal_bench::find_program("vsftpd"), settings});
    }

    std::string uri(const std::string &file) const { return "ftp://127.0.0.1:" + port_ + "/" + file; }

    bool answers() const { return kestal_bench::answers(port_); }

private:
    kestal_bench::folder folder_;
    const std::string port_ = kestal_bench::free_port(kestal_open_listen_socket("127.0.0.1", 0));
    std::optional<kestal_bench::server> server_;
};

// A session of either side: begun, and one file fetched; the number of bytes that came.
class with_kestal {
public:
    explicit with_kestal(const service &server)
    {
        kestal_ftp_connect(ftp_, server.uri("").c_str(), 0);
        kestal_ftp_login(ftp_, nullptr, nullptr, nullptr);
    }
    ~with_kestal() { kestal_close_ftp(ftp_); }
    with_kestal(const with_kestal &) = delete;
    with_kestal &operator=(const with_kestal &) = delete;

    size_t fetch(const std::string &file)
    {
        size_t size = 0;
        if (kestal_ftp_get_size(ftp_, file.c_str(), nullptr) != 0 ||
            kestal_ftp_open_stream(ftp_, 0, file.c_str(), "r") != 0)
            return 0;
        static char block[65536];
        for (int32_t count; (count = kestal_ftp_recv_stream(ftp_, block, sizeof block, -1)) > 0;)
            size += static_cast<size_t>(count);
        return kestal_ftp_close_stream(ftp_) == 0 ? size : 0;
    }

private:
    kestal_ftp_t *ftp_ = kestal_open_ftp();
};

class with_curl {
public:
    explicit with_curl(const service &server) : server_(server)
    {
        curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, count);
        curl_easy_setopt(curl_, CURLOPT_WRITEDATA, &size_);
        curl_easy_setopt(curl_, CURLOPT_BUFFERSIZE, 65536L);
        curl_easy_setopt(curl_, CURLOPT_FTP_USE_EPSV, 0L);
        curl_easy_setopt(curl_, CURLOPT_TCP_NODELAY, 1L);
    }
    ~with_curl() { curl_easy_cleanup(curl_); }
    with_curl(const with_curl &) = delete;
    with_curl &operator=(const with_curl &) = delete;

    size_t fetch(const std::string &file)
    {
        size_ = 0;
        curl_easy_setopt(curl_, CURLOPT_URL, server_.uri(file).c_str());
        return curl_easy_perform(curl_) == CURLE_OK ? size_ : 0;
    }

private:
    static size_t count(const char *, size_t, size_t size, void *total)
    {
        *static_cast<size_t *>(total) += size;
        return size;
    }

    const service &server_;
    CURL *curl_ = curl_easy_init();
    size_t size_ = 0;
};

template <typename Side>
void fetch(benchmark::State &state, const std::string &file, size_t size)
{
    const service server;
    if (!server.answers()) {
        state.SkipWithError("no server");
        return;
    }
    Side side(server);
    for (auto _ : state)
        if (side.fetch(file) != size) {
            state.SkipWithError("not the whole file");
            return;
        }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

constexpr auto kestal = fetch<with_kestal>;
constexpr auto libcurl = fetch<with_curl>;
BENCHMARK_CAPTURE(kestal, large, "large", large_size)->Name("FTP file of 64 MiB:kestal")->UseRealTime();
BENCHMARK_CAPTURE(libcurl, large, "large", large_size)->Name("FTP file of 64 MiB:libcurl")->UseRealTime();
BENCHMARK_CAPTURE(kestal, small, "small", small_size)->Name("FTP file of 1 KB:kestal")->UseRealTime();
BENCHMARK_CAPTURE(libcurl, small, "small", small_size)->Name("FTP file of 1 KB:libcurl")->UseRealTime();

} // namespace
