// A broker of the test's own, and two machines: each a segment with a relay and a directory.
//
//     Broker broker;                              // skips the test where none is installed
//     Machine here(broker, HALVO_BIN), there(broker, HALVO_OTHER_BIN);
//     here.route("from = \"channel:MT01\"\nto = \"amqp:mt01\"");
//     here.declare(); here.start();
//
// The test itself attaches to no segment; writers and readers are peers.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/frx_fixture.h"
#include "tests/support/program.h"

namespace halvo::test {

class Broker {
public:
    // lines: of the broker's configuration.
    explicit Broker(const std::vector<std::string> &lines = {},
                    const std::map<std::string, std::string> &environment = {});
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    static bool is_installed();
    int port() const { return port_; }
    const std::string &directory() const { return directory_; }
    void start(); // again
    void stop() const { command("stop"); }
    void kill() const { command("kill"); }
    void signal(int number) const; // SIGSTOP, SIGCONT

private:
    std::string command(const std::string &words) const;
    std::string directory_, environment_, lines_;
    std::FILE *guard_; // removes the broker when this process has ended, however
    int port_ = 0;
};

class Machine {
public:
    // binaries: the folder of halvo-relay, of either word size.
    Machine(const std::string &urls, const std::string &binaries, uint32_t slots = 512,
            uint32_t slot_size = 256);
    ~Machine() { relay_.reset(); }

    void route(const std::string &lines, const std::string &name = "r");
    void broker(const std::string &lines) { broker_ += lines + "\n"; }
    void relay(const std::string &lines) { relay_lines_ += lines + "\n"; }
    void credentials(const std::string &user, const std::string &password, int mode = 0600) const;
    void save() const; // the configuration; start() and tool() do it too
    void forget_routes() { routes_.clear(); }

    Outcome tool(const std::string &command, const std::string &option = "") const;
    void declare() const {
        const Outcome done = tool("check", "--declare");
        ASSERT_EQ(done.status, 0) << done.out << done.err;
    }
    void start();
    void kill() const { relay_->kill(SIGKILL), relay_->wait(); }
    int end() const { return relay_->kill(SIGTERM), relay_->wait(); }
    void signal(int number) const { relay_->kill(number); }
    double processor_seconds() const;                           // that the relay has used
    int wait() const { return relay_->wait(); }                 // the exit status
    std::string log() const;                                    // since the first start
    bool logs(const std::string &text, int seconds = 20) const; // waits for it
    int64_t figure(const std::string &name, const std::string &route = "r") const; // of the metrics
    bool reaches(const std::string &name, int64_t least,
                 const std::string &route = "r") const; // waits
    const Segment &segment() const { return segment_; }
    std::string path(const std::string &name) const { return segment_.path(name); }

private:
    Segment segment_;
    std::string binaries_, urls_, broker_, relay_lines_, routes_;
    std::unique_ptr<Peer> relay_;
};

// What a reader found of messages numbered 1 to n; shared by the processes of a test.
struct Ledger {
    int64_t got, lost, doubled, reordered, torn;
};

// Writes messages number `from` to `to` into MT01 of a segment, in a process of its own.
std::unique_ptr<Peer> write_numbers(const Segment &segment, int from, int to,
                                    uint32_t length = 100);
// Reads MT01 in a process of its own, until all n have come, or none for so many seconds; and then half
// a second more for doubles.
class NumberReader {
public:
    NumberReader(const Segment &segment, int n, int quiet_seconds);
    ~NumberReader();
    Ledger result(); // waits

private:
    Ledger *ledger_; // shared with the process
    std::unique_ptr<Peer> peer_;
};
inline Ledger read_numbers(const Segment &segment, int n, int quiet_seconds = 15) {
    return NumberReader(segment, n, quiet_seconds).result();
}
inline void expect_perfect(const Ledger &ledger, int n) {
    EXPECT_EQ(ledger.lost, 0);
    EXPECT_EQ(ledger.doubled, 0);
    EXPECT_EQ(ledger.reordered, 0);
    EXPECT_EQ(ledger.torn, 0);
    EXPECT_EQ(ledger.got, n);
}

std::string url_of(const Broker &broker);
// Runs a python program with the broker's port as its argument.
Outcome run_python(const std::string &program, const std::vector<std::string> &arguments);

} // namespace halvo::test
