// A broker of the test's own, and two machines: each a segment with a relay and a directory.
//
//     Broker broker;
//     Machine here(url_of(broker), HALVO_BIN), there(url_of(broker), HALVO_BIN);
//     here.route("from = \"channel:MT01\"\nto = \"amqp:mt01\"");
//     here.declare(); here.start();
//
// The test itself attaches to no segment; writers and readers are peers.
#pragma once

#include "tests/support/frx_fixture.h"
#include "tests/support/program.h"

namespace halvo::test {

class Broker {
public:
    // For the shell: lines of the broker's configuration, and variables for its script.
    explicit Broker(std::string lines = "", std::string environment = "");
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    static bool is_installed();
    int port() const { return port_; }
    void start(); // again
    void kill() const { command("kill"); }
    void signal(int number) const; // SIGSTOP, SIGCONT

private:
    std::string command(const std::string &what, const std::string &more = {}) const;
    std::string directory_, lines_, environment_;
    std::FILE *guard_; // removes the broker when this process has ended, however
    int port_ = 0;
};
std::string url_of(const Broker &broker);
int free_port(); // of loopback

class Machine {
public:
    // binaries: the folder of halvo-relay, of either word size.
    Machine(const std::string &urls, const std::string &binaries, uint32_t slots = 512,
            uint32_t slot_size = 256);
    ~Machine(); // after a failure the log is printed

    void route(const std::string &lines, const std::string &name = "r");
    void broker(const std::string &lines) { broker_ += lines + "\n"; }
    void relay(const std::string &lines) { relay_lines_ += lines + "\n"; }
    void credentials(const std::string &user, const std::string &password,
                     mode_t mode = 0600) const;
    void save() const; // the configuration; start() and tool() do it too
    void forget_routes() { routes_.clear(); }

    Outcome tool(const std::string &command, const std::string &option = "") const;
    void declare() const { expect_end(tool("check", "--declare"), 0); }
    void start();
    void kill() const { relay_->kill(SIGKILL), relay_->wait(); }
    int end() const { return relay_->kill(SIGTERM), relay_->wait(); }
    void signal(int number) const { relay_->kill(number); }
    double processor_seconds() const;           // that the relay has used
    void descriptors(rlim_t most) const;        // that it can have
    int wait() const { return relay_->wait(); } // the exit status
    std::string log() const;                    // since the first start
    bool logs(const std::string &text) const;   // waits for it
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
// Reads MT01 in a process of its own, until so many of the n have come, or none for long; and then
// half a second more for doubles.
class NumberReader {
public:
    NumberReader(const Segment &segment, int n, int wanted);
    Ledger result(); // waits

private:
    Ledger &ledger_;
    Peer peer_;
};
inline Ledger read_numbers(const Segment &segment, int n, int wanted) {
    return NumberReader(segment, n, wanted).result();
}
inline void expect_perfect(const Ledger &l, int n) {
    EXPECT_TRUE(l.got == n && l.lost + l.doubled + l.reordered + l.torn == 0)
        << l.got << " of " << n << ", " << l.lost << " lost, " << l.doubled << " doubled, "
        << l.reordered << " reordered, " << l.torn << " torn";
}
inline void expect_all(const Segment &segment, int n) {
    expect_perfect(read_numbers(segment, n, n), n);
}

// Runs a python program, which finds a connection to the broker in `channel`, and the words in `words`.
// Confirmed and closed: of a connection that is lost the broker may drop what it sent last.
std::string run_python(const Broker &broker, const std::string &program,
                       const std::vector<std::string> &words);

constexpr int kMostBytes = 20000; // that the shared broker takes as a message

// The one broker of a test program, with TLS on a second port.
Broker &shared_broker();
int tls_port();                                   // of it, with a certificate for "localhost"
std::string certificate(const std::string &name); // path: ca.pem, client.pem, client.key, other.pem

// A pair of relays over queues named after the test, so that tests do not meet.
class RelayPair : public testing::Test {
protected:
    void SetUp() override;
    void make(uint32_t slots_there, uint32_t size_there);
    // The usual routes, with more lines for each.
    void route(const std::string &out = "", const std::string &in = "");
    void start();
    void write(int from, int to, uint32_t length = 100) {
        EXPECT_EQ(write_numbers(here_->segment(), from, to, length)->wait(), 0);
    }
    std::string fq(std::vector<std::string> words, const std::string &input = "") const;
    // A text in what lies in a machine's file queue of dead letters.
    void expect_letter(const Machine &machine, const std::string &text) const {
        expect_end(run_program({HALVO_BIN "/halvo-fq", "get", machine.path("r.dead")}), 0, text);
    }
    std::string queue_, out_, in_; // and the usual routes
    std::unique_ptr<Machine> here_, there_;
};

} // namespace halvo::test
