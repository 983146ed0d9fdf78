// What tests of sockets share: descriptors counted, and a listener to connect to.
#pragma once

#include "support.hpp"

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
    sockaddr_storage name;
    uint32_t length = sizeof name;
    EXPECT_EQ(kestal_getsockname(sock, &name, &length), 0);
    return kestal_sockaddr_get_port(&name);
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
        EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors left open";
        counted::TearDown();
    }

private:
    size_t descriptors_ = 0;
};

} // namespace kestal_test
