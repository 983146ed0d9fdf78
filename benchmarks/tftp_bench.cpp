// TFTP clients side by side: the same file from the same server (tftpd-hpa), fetched by programs that run to their end,
// their start included, and drop what comes.
#include <kestal_ulx.h>

#include "peer_process.hpp"

#include <benchmark/benchmark.h>

#include <fstream>
#include <optional>
#include <string>

namespace {

constexpr size_t file_size = 8 << 20;

// The server with its file.
class service {
public:
    service()
    {
        std::ofstream(folder_.path() + "/file") << std::string(file_size, 'x');
        server_.emplace(std::vector<std::string>{kestal_bench::find_program("in.tftpd"), "--foreground", "--address",
                                                 "127.0.0.1:" + port_, "--secure", folder_.path()});
    }

    const std::string &port() const { return port_; }

    // Whether it answers within so many tries.
    bool answers() const
    {
        for (int tries = 0; tries < 100; ++tries) {
            kestal_tftp_t *tftp = kestal_open_tftp(0, ("tftp://127.0.0.1:" + port_ + "/file").c_str(), 100);
            const bool is_there =
                kestal_tftp_read_request(tftp, nullptr, nullptr, 100) == 0 && kestal_tftp_read_data(tftp, 100) > 0;
            kestal_close_tftp(tftp);
            if (is_there)
                return true;
        }
        return false;
    }

private:
    kestal_bench::folder folder_;
    const std::string port_ = kestal_bench::free_port(kestal_open_udp_socket("127.0.0.1", -1));
    std::optional<kestal_bench::server> server_;
};

void measure(benchmark::State &state, const std::vector<std::string> &command)
{
    for (auto _ : state)
        if (!kestal_bench::run(command)) {
            state.SkipWithError("the client failed");
            return;
        }
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    const service tftpd;
    if (!tftpd.answers())
        return EXIT_FAILURE;
    const auto add = [](const char *name, const std::vector<std::string> &command) {
        benchmark::RegisterBenchmark(name, measure, command)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    const std::string location = "tftp://127.0.0.1:" + tftpd.port() + "/file";
    add("TFTP 8 MiB:kestal", {KESTAL_GET, "--quiet", "--output", "/dev/null", location});
    if (const std::string atftp = kestal_bench::find_program("atftp"); !atftp.empty())
        add("TFTP 8 MiB:atftp",
            {atftp, "--get", "--remote-file", "file", "--local-file", "/dev/null", "127.0.0.1", tftpd.port()});
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
