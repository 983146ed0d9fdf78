// Scenarios in namespaces of their own: a network that holds only what the scenario makes, and files that only it sees.
#pragma once

#include <functional>
#include <string>

namespace kestal_test {

// Runs the scenario in a child process with its own network and mount namespaces. Its failures fail the test, and blocks
// it leaves behind too. Null, or why it cannot be run here.
const char *in_own_network(const std::function<void()> &scenario);

// While it lives, a process in a further network of its own (within a scenario: "ip link set DEVICE netns PROCESS").
class other_network {
public:
    other_network();
    ~other_network();
    other_network(const other_network &) = delete;
    other_network &operator=(const other_network &) = delete;

    std::string process() const { return std::to_string(process_); }
    // Runs the work in that network, in a process of its own, and waits for it.
    void run(const std::function<void()> &work) const;

private:
    int process_ = -1;
    int end_ = -1;
};

// Runs a shell command; the test fails when it does.
void run(const std::string &command);

} // namespace kestal_test
