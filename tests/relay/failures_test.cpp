// What goes wrong on the way: messages that fit nowhere, queues that are not there, brokers that refuse
// or stand still, readers that are away.
#include <array>

#include "tests/relay/relay_fixture.h"

using namespace halvo::test;

struct RelayFailures : RelayPair {
    // Both relays run over a broker that stops in the midst of 400 messages.
    void stop_the_broker(const std::string &broker_lines) {
        for (Machine *machine : {here_.get(), there_.get()}) machine->broker(broker_lines);
        route();
        start();
        write(1, 50);
        EXPECT_TRUE(there_->reaches("messages_total", 50));
        shared_broker().signal(SIGSTOP);
        write(51, 400);
    }
};

TEST_F(RelayFailures, a_message_longer_than_the_slot_is_rejected_to_the_dead_letter_queue) {
    route("", "dead_letter_queue = \"" + queue_ + ".dead\"");
    start();
    write(1, 5);
    write(6, 6, 1000);
    write(7, 9);
    EXPECT_EQ(read_numbers(there_->segment(), 9, 8).lost, 1);
    EXPECT_TRUE(there_->reaches("dead_letters_total", 1));
    const std::string dead = run_python(shared_broker(), R"(
import time
while not (got := channel.basic_get(words[0]))[0]: time.sleep(0.05)
print(len(got[2]), got[2][:8].decode(), got[1].headers['x-first-death-reason'], got[1].type))",
                                        {queue_ + ".dead"});
    EXPECT_EQ(dead, "1000 00000006 rejected 7\n");
}

TEST_F(RelayFailures, without_such_a_queue_it_is_kept_in_a_file_queue_or_stops_the_route) {
    route();
    start();
    write(1, 1, 1000);
    write(2, 2);
    EXPECT_EQ(read_numbers(there_->segment(), 2, 1).got, 1);
    expect_letter(*there_, "reason=a message of 1000 bytes, longer than 240\n00000001 ");

    EXPECT_EQ(there_->end(), 0);
    there_->forget_routes();
    there_->route(in_ + "on_poison = \"stop\"");
    write(3, 3);
    write(4, 4, 1000);
    EXPECT_TRUE(here_->reaches("messages_total", 4));
    there_->start();
    EXPECT_TRUE(there_->logs("error r stopped: a message of 1000 bytes"));
    EXPECT_EQ(read_numbers(there_->segment(), 4, 1).got, 1) << "what came before it is delivered";
    EXPECT_EQ(there_->figure("state"), 0) << "it is neither stopped by the operator ...";
    EXPECT_EQ(there_->end(), 0);
}

TEST_F(RelayFailures, a_message_that_the_broker_never_takes_goes_to_the_dead_letters) {
    make(512, 32768);
    route();
    start();
    EXPECT_TRUE(here_->logs("connected"));
    here_->signal(SIGSTOP); // so that the long one lies in the midst of a batch
    write(1, 2);
    write(3, 3, kMostBytes + 1);
    write(4, 12);
    here_->signal(SIGCONT);
    const Ledger ledger = read_numbers(there_->segment(), 12, 11);
    EXPECT_EQ(ledger.got, 11);
    EXPECT_EQ(ledger.doubled + ledger.reordered, 0);
    expect_letter(*here_, "larger than configured max size 20000\n00000003 ");
}

TEST_F(RelayFailures, a_message_without_a_queue_waits_or_goes_to_the_dead_letters) {
    route();
    here_->start(); // nobody has declared the queue
    write(1, 300);
    EXPECT_TRUE(here_->logs("unroutable: NO_ROUTE"));
    there_->declare();
    there_->start();
    expect_all(there_->segment(), 300);
    EXPECT_EQ(here_->end(), 0);

    here_->forget_routes();
    here_->route("from = \"channel:MT01\"\nto = \"amqp:nowhere\"\non_unroutable = \"dead-letter\"");
    here_->start();
    write(1, 3);
    EXPECT_TRUE(here_->reaches("dead_letters_total", 3));
    expect_letter(*here_, "number=303 ");
}

TEST_F(RelayFailures, wrong_credentials_are_told_and_lose_nothing) {
    route();
    there_->declare();
    there_->start();
    here_->credentials("guest", "wrong");
    here_->start();
    write(1, 100);
    EXPECT_TRUE(here_->logs("ACCESS_REFUSED"));
    here_->credentials("guest", "guest", 0644);
    EXPECT_TRUE(here_->logs("others may read it"));
    here_->credentials("guest", "guest");
    expect_all(there_->segment(), 100);
    EXPECT_EQ(here_->log().find("wrong\n"), std::string::npos) << "no secrets in the log";
}

TEST_F(RelayFailures, a_broker_that_stands_still_is_left_and_found_again) {
    stop_the_broker("heartbeat = 1");
    EXPECT_TRUE(here_->logs("connection-lost"));
    EXPECT_TRUE(there_->logs("connection-lost"));
    shared_broker().signal(SIGCONT);
    expect_all(there_->segment(), 400);
}

TEST_F(RelayFailures, a_silent_broker_does_not_keep_a_relay_from_its_end) {
    stop_the_broker("heartbeat = 300\nconfirm_timeout = 300");
    EXPECT_TRUE(comes_true([&] { return here_->figure("in_flight") > 0; }));
    const int64_t start = milliseconds_now();
    EXPECT_EQ(here_->end(), 0);
    EXPECT_LT(milliseconds_now() - start, 25000) << "a service manager kills it after 30 seconds";
    shared_broker().signal(SIGCONT);
    here_->start();
    expect_all(there_->segment(), 400);
}

TEST_F(RelayFailures, a_full_channel_holds_the_messages_back_and_keeps_the_connection) {
    make(16, 256);
    there_->broker("heartbeat = 2"); // a shorter one is missed on a busy machine
    route("batch = 50", "batch = 50\nprefetch = 60");
    start();
    write(1, 400);
    EXPECT_TRUE(here_->reaches("messages_total", 400));
    usleep(5000000); // more than the two heartbeats after which either side gives up
    EXPECT_EQ(there_->figure("connection_losses_total"), 0);
    EXPECT_EQ(there_->figure("messages_total"), 16);
    expect_all(there_->segment(), 400);
}

TEST_F(RelayFailures, tls_takes_the_right_authority_and_name_alone) {
    for (const auto &[host, ca, outcome] :
         std::vector<std::array<std::string, 3>>{{"localhost", "ca.pem", "connected"},
                                                 {"localhost", "other.pem", "connection-lost"},
                                                 {"127.0.0.1", "ca.pem", "connection-lost"}}) {
        Machine machine("\"amqps://" + host + ":" + std::to_string(tls_port()) + "\"", HALVO_BIN);
        machine.broker("ca = \"" + certificate(ca) + "\"\ncertificate = \"" +
                       certificate("client.pem") + "\"\nkey = \"" + certificate("client.key") +
                       "\"");
        machine.route(out_);
        machine.start();
        EXPECT_TRUE(machine.logs(outcome)) << host << " " << ca;
        EXPECT_EQ(machine.log().find("connected") != std::string::npos, outcome == "connected");
        EXPECT_EQ(machine.end(), 0);
    }
}
