// The one broker of a test program, with TLS on a second port and a limit on the size of messages.
#pragma once

#include "tests/relay/relay_fixture.h"

namespace halvo::test {

constexpr int kMostBytes = 20000; // that this broker takes as a message

Broker &shared_broker();
int tls_port();                                   // of it, with a certificate for "localhost"
std::string certificate(const std::string &name); // path: ca.pem, client.pem, client.key, other.pem

// A pair of relays over queues named after the test, so that tests do not meet.
class RelayPair : public testing::Test {
protected:
    void SetUp() override {
        if (!Broker::is_installed())
            GTEST_SKIP() << "no broker here: dev/setup.sh relay installs it";
        queue_ = testing::UnitTest::GetInstance()->current_test_info()->name();
        shared_broker();
        make(512, 256);
    }
    void make(uint32_t slots_there, uint32_t size_there) {
        here_ = std::make_unique<Machine>(url_of(shared_broker()), HALVO_BIN, 512, 32768);
        there_ =
            std::make_unique<Machine>(url_of(shared_broker()), HALVO_BIN, slots_there, size_there);
    }
    // The usual routes, with more lines for each.
    void route(const std::string &out = "", const std::string &in = "") {
        here_->route("from = \"channel:MT01\"\nto = \"amqp:" + queue_ + "\"\n" + out);
        there_->route("from = \"amqp:" + queue_ + "\"\nto = \"channel:MT01\"\n" + in);
    }
    void start() {
        there_->declare();
        here_->start();
        there_->start();
    }
    void write(int from, int to, uint32_t length = 100) {
        EXPECT_EQ(write_numbers(here_->segment(), from, to, length)->wait(), 0);
    }
    void TearDown() override {
        if (HasFailure() && here_)
            std::fprintf(stderr, "%s----\n%s", here_->log().c_str(), there_->log().c_str());
    }
    // What lies in a file queue of a machine.
    std::string letters(const Machine &machine, const std::string &queue = "r.dead") const {
        return run_program({HALVO_BIN "/halvo-fq", "get", machine.path(queue)}).out;
    }
    std::string queue_;
    std::unique_ptr<Machine> here_, there_;
};

} // namespace halvo::test
