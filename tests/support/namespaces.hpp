// Scenarios in namespaces of their own: a network that holds only what the scenario makes, and files that only it sees.
#pragma once

#include <functional>
#include <string>

namespace kestal_test {

// Runs the scenario in a child process with its own network ("lo" is up), mounts and host name. Its failures fail the
// test, and blocks and descriptors it leaves behind too. Where the privilege for that is missing, the test is skipped.
void in_own_network(const std::function<void()> &scenario);

// The same where all that is known of names stands in a hosts file of the scenario's own: `set_hosts` writes it anew.
using set_hosts_t = std::function<void(const std::string &)>;
void with_hosts(const std::string &hosts, const std::function<void(const set_hosts_t &set_hosts)> &scenario);

// While it lives, a further network, into which a scenario reaches: "ip link set DEVICE netns PATH".
class other_network {
public:
    other_network();
    ~other_network();
    other_network(const other_network &) = delete;
    other_network &operator=(const other_network &) = delete;

    std::string path() const;
    // Does the work in that network.
    void run(const std::function<void()> &work) const;

private:
    int own_;
    int other_ = -1;
};

// Runs a shell command; the test fails when it does.
void run(const std::string &command);

} // namespace kestal_test
