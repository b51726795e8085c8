// A stream through two relays and a broker while all three are killed: the ledger must show each
// message once, in order. The short form kills each relay three times and the broker once.
#include <thread>

#include "tests/proof/form.h"
#include "tests/relay/relay_fixture.h"
#include "tests/support/files.h"

using namespace halvo::test;

namespace {

// The programs of the other word size, where they are built.
const std::string kOtherWidth =
    HALVO_SOURCE "/build/" + std::string(sizeof(void *) == 4 ? "x86_64" : "i386") + "/bin";
const std::string kOther = exists(kOtherWidth + "/halvo-relay") ? kOtherWidth : HALVO_BIN;

// Kills while the stream runs, at moments of no rhythm, and starts again.
void kill_around(Broker &broker, Machine &here, Machine &there, int rounds, int of_broker) {
    std::mt19937 random(seed());
    const auto pause = [&](int most) {
        usleep(static_cast<useconds_t>(1000U * (100 + random() % static_cast<unsigned>(most))));
    };
    for (int i = 0; i < rounds; ++i) {
        for (Machine *machine : {&here, &there}) {
            pause(400);
            machine->kill();
            machine->start();
        }
        if ((i + 1) % (rounds / of_broker) == 0) {
            pause(400);
            broker.kill();
            broker.start();
        }
    }
}

// A writer's end, a relay each way, a reader's end.
struct Stream {
    const int messages;
    int64_t began = 0;
    Machine here, there;
    NumberReader reader;
    std::unique_ptr<Peer> writer;

    Stream(const std::string &urls, int n)
        : messages(n), here(urls, HALVO_BIN), there(urls, kOther), reader(there.segment(), n, n) {
        here.route("from = \"channel:MT01\"\nto = \"amqp:mt01\"");
        there.route("from = \"amqp:mt01\"\nto = \"channel:MT01\"");
        here.declare();
        writer = write_numbers(here.segment(), 1, messages);
        began = milliseconds_now();
        here.start();
        there.start();
    }
    // Returns how long the messages took, in milliseconds.
    int64_t judge(const std::string &what) {
        EXPECT_EQ(writer->wait(), 0);
        const Ledger ledger = reader.result();
        const int64_t took = milliseconds_now() - began;
        figure(what + "messages lost", "0", ledger.lost);
        figure(what + "messages doubled", "0", ledger.doubled);
        figure(what + "messages reordered", "0", ledger.reordered);
        figure(what + "repeats dropped", "-", there.figure("repeats_total"));
        expect_perfect(ledger, messages);
        EXPECT_EQ(here.end() + there.end(), 0);
        return took;
    }
};

} // namespace

TEST(RelayKills, nothing_is_lost_doubled_or_reordered) {
    if (!Broker::is_installed()) GTEST_SKIP() << "no broker here: dev/setup.sh relay installs it";
    const int rounds = length(3, 20), of_broker = length(1, 5), messages = length(45000, 300000);
    Broker broker;
    Stream stream(url_of(broker), messages);
    kill_around(broker, stream.here, stream.there, rounds, of_broker);
    const int64_t at_last_kill = stream.there.figure("messages_total");
    const std::string what = std::to_string(rounds) + " kills of each relay, " +
                             std::to_string(of_broker) + " of the broker: ";
    stream.judge(what);
    figure(what + "messages when the last kill came, of " + std::to_string(messages), "-",
           at_last_kill);
}

// Three nodes with quorum queues; one of them, which may hold the queue's leader and the relays'
// connections, is killed and comes back.
TEST(RelayKills, a_cluster_that_loses_a_node_loses_no_message) {
    if (!Broker::is_installed()) GTEST_SKIP() << "no broker here: dev/setup.sh relay installs it";
    if (!is_long_form()) GTEST_SKIP() << "three nodes take memory and time: in make stress alone";
    constexpr int kMessages = 150000, kKilled = 2;
    const std::string mapper = std::to_string(free_port());
    std::vector<std::unique_ptr<Broker>> nodes(3);
    std::vector<std::thread> starts;
    for (size_t i = 0; i < nodes.size(); ++i)
        starts.emplace_back([&nodes, &mapper, i] {
            nodes[i] = std::make_unique<Broker>(
                "", "BROKER_NAME=n" + std::to_string(i) + "x" + mapper + " BROKER_NODES='n0x" +
                        mapper + " n1x" + mapper + " n2x" + mapper + "' BROKER_COOKIE=c" + mapper +
                        " BROKER_MAPPER=" + mapper);
        });
    for (std::thread &start : starts) start.join();
    std::string urls;
    for (const auto &node : nodes) urls += (urls.empty() ? "" : ", ") + url_of(*node);
    Stream stream(urls, kMessages);
    for (int i = 0; i < kKilled; ++i) {
        EXPECT_TRUE(stream.there.reaches("messages_total", kMessages / 4 * (i + 1)));
        Broker &node = *nodes[static_cast<size_t>(i)];
        node.kill();
        usleep(3000000); // the others elect a leader meanwhile
        node.start();
    }
    const int64_t took = stream.judge("cluster of three, two nodes killed in turn: ");
    figure("cluster of three: messages a second, kills and all", "-",
           kMessages * int64_t{1000} / took);
}
