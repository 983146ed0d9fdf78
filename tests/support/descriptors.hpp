// What tests of sockets share: descriptors counted and owned, addresses and ports.
#pragma once

#include "support.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <netinet/in.h>

namespace kestal_test {

inline size_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// The local port of a socket.
inline uint32_t port_of(int32_t sock)
{
    sockaddr_storage name = {};
    uint32_t length = sizeof name;
    EXPECT_EQ(kestal_getsockname(sock, &name, &length), 0);
    return kestal_sockaddr_get_port(&name);
}

inline sockaddr_storage address_of(const std::string &text)
{
    sockaddr_storage address = {};
    EXPECT_EQ(kestal_inet_ptos(0, text.c_str(), 0, &address, sizeof address), 0) << text;
    return address;
}

// A socket that must be open, and is closed with its scope.
class owned_socket {
public:
    explicit owned_socket(int32_t sock) : sock_(sock) { EXPECT_GE(sock, 0) << strerror(errno); }
    ~owned_socket() { kestal_close_socket(sock_); }
    owned_socket(const owned_socket &) = delete;
    owned_socket &operator=(const owned_socket &) = delete;

    operator int32_t() const { return sock_; }
    int32_t port() const { return static_cast<int32_t>(port_of(sock_)); }

private:
    int32_t sock_;
};

// A socket that holds a port of 127.0.0.1 on which nobody listens.
inline int32_t bound_socket()
{
    const sockaddr_storage address = address_of("127.0.0.1");
    const int32_t sock = kestal_open_socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(kestal_bind(sock, &address, sizeof(sockaddr_in)), 0);
    return sock;
}

// A test whose open descriptors, as well as its live blocks, must end where they began.
class descriptors_counted : public counted {
protected:
    void SetUp() override
    {
        counted::SetUp();
        kestal_free(kestal_get_hostname_alloc()); // what the system keeps open once
        descriptors_ = open_descriptors();
    }
    void TearDown() override
    {
        kestal_thread_pool_wait(60000);
        EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors left open";
        counted::TearDown();
    }

private:
    size_t descriptors_ = 0;
};

} // namespace kestal_test
