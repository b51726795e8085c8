// What goes right: file queues, shards, foreign programs, and what operators do to a relay at work.
#include "tests/relay/relay_fixture.h"
#include "tests/support/files.h"

using namespace halvo::test;

namespace {

class RelayRoutes : public RelayPair {
protected:
    std::string python(const std::string &program) const {
        return run_python(shared_broker(), "queue = words[0]\n" + program, {queue_});
    }
};

// The service manager's end: prints the first line of what it is told.
const char *const kManager = R"(
import socket, sys
end = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
end.bind(sys.argv[1])
while True: print(end.recv(256).decode().split('\n')[0], flush=True))";

} // namespace

TEST_F(RelayRoutes, a_file_queue_to_a_file_queue_over_kills_and_an_item_that_is_too_long) {
    here_->route("from = \"fq:" + here_->path("mo") + "\"\nto = \"amqp:" + queue_ +
                 "\"\nbatch = 50\nmax_bytes = 50");
    there_->route("from = \"amqp:" + queue_ + "\"\nto = \"fq:" + there_->path("mo") +
                  "\"\nbatch = 50");
    here_->relay("metrics = \"file:" + here_->path("prom") + "\"");
    const std::string first = "a\nb\n", long_one = std::string(60, 'c') + "\n";
    std::string rest;
    for (int i = 1; i <= 4000; ++i) rest += "item " + std::to_string(i) + "\n";
    fq({"put", here_->path("mo"), "--batch", "100"}, first + long_one + rest);
    start();
    for (int i = 0; i < 4; ++i)
        for (Machine *machine : {here_.get(), there_.get()}) {
            usleep(130000);
            machine->kill();
            machine->start();
        }
    // What a killed relay had written without counting it is there all the same.
    const std::vector<std::string> peek{HALVO_BIN "/halvo-fq", "peek", there_->path("mo")};
    comes_true([&] { return run_program(peek).out.size() >= (first + rest).size(); }, 100);
    usleep(300000); // for doubles
    EXPECT_EQ(fq({"get", there_->path("mo")}), first + rest);
    expect_letter(*here_, "longer than max_bytes: 60\n" + long_one);
    EXPECT_EQ(here_->end(), 0);
    EXPECT_NE(content_of(here_->path("prom")).find("state=\"stopped\"} 1"), std::string::npos);
}

TEST_F(RelayRoutes, shards_keep_the_order_of_each_key) {
    route("shards = 3\nshard_by = \"type\"", "shards = 3");
    start();
    write(1, 3000);
    EXPECT_TRUE(there_->reaches("messages_total", 512)); // the channel is full then
    there_->kill();                                      // and must not double what is in
    there_->start();
    const Ledger ledger = read_numbers(there_->segment(), 3000, 3000);
    EXPECT_EQ(ledger.lost + ledger.doubled + ledger.torn, 0);
    EXPECT_EQ(there_->figure("missing_total"), 0) << "each shard counts for itself";
}

TEST_F(RelayRoutes, a_foreign_program_reads_what_was_sent_and_sends_what_is_read) {
    route("", "type = 3");
    here_->declare();
    here_->start();
    write(1, 3);
    EXPECT_TRUE(here_->reaches("messages_total", 3));
    const std::string got = python(R"(
ids = []
for method, p, body in channel.consume(queue, inactivity_timeout=20):
    assert method and p.app_id == 'halvo-relay' and p.delivery_mode == 2
    ids.append(p.message_id.split(':'))
    print(p.type, len(body), body[:8].decode(), ids[-1][1])
    channel.basic_ack(method.delivery_tag)
    if len(ids) == 3: break
assert len(set(i[0] for i in ids)) == 1 and len(ids[0][0]) == 16)");
    EXPECT_EQ(got, "2 100 00000001 1\n3 100 00000002 2\n4 100 00000003 3\n");

    there_->start();
    python(R"(
for i in 2, 9: channel.basic_publish('', queue, b'%08d x%c' % (i, b'abcdefghij'[i]))
)");
    const Ledger ledger = read_numbers(there_->segment(), 9, 2); // both are of type 3: 2 % 7 + 1
    EXPECT_EQ(ledger.got - ledger.torn, 2);
}

TEST_F(RelayRoutes, a_new_segment_begins_a_new_source) {
    route();
    start();
    write(1, 10);
    EXPECT_TRUE(there_->reaches("messages_total", 10));
    EXPECT_EQ(here_->end(), 0);
    const std::string config = here_->path("new.toml"), key = here_->segment().key_file();
    write_file(config, "[[channel]]\nname = \"MT01\"\nslots = 512\nslot_size = 32768\n");
    expect_end(run_program({HALVO_BIN "/halvo-qm", "create", config, "--key", key, "--replace"}),
               0);
    here_->start();
    write(11, 20);
    expect_all(there_->segment(), 20);
    EXPECT_TRUE(here_->logs("was made anew"));
}

TEST_F(RelayRoutes, foreign_damaged_and_busy_state_files_are_refused) {
    route();
    start();
    EXPECT_TRUE(here_->logs("connected"));
    Machine third(url_of(shared_broker()), HALVO_BIN);
    third.route(out_);
    const std::string state = content_of(here_->path("r.state"));
    for (const auto &[content, why] : std::vector<std::pair<std::string, std::string>>{
             {state, "the state file is foreign: it is of \"from channel:MT01 of "},
             {"X" + state.substr(1), "the state file is damaged (its header)"},
             {"short", "the state file is damaged (its size)"}}) {
        write_file(third.path("r.state"), content);
        third.start();
        EXPECT_EQ(third.wait(), 2);
        EXPECT_TRUE(third.logs(why));
        EXPECT_EQ(third.tool("check").status, 1);
    }

    expect_end(run_program({HALVO_BIN "/halvo-relay", "run", here_->path("relay.toml")}), 2);
    EXPECT_EQ(here_->end(), 0);
}

TEST_F(RelayRoutes, signals_metrics_and_the_service_manager) {
    const std::string notify = here_->path("notify");
    const auto manager = start_program({"/usr/bin/python3", "-c", kManager, notify}, notify + "d");
    ASSERT_TRUE(comes_true([&] { return exists(notify); }));
    const auto told = [&](const std::string &text) {
        return comes_true([&] { return content_of(notify + "d") == text; });
    };
    setenv("NOTIFY_SOCKET", notify.c_str(), 1);
    const std::string address = "127.0.0.1:" + std::to_string(free_port());
    here_->relay("log = \"json\"\nmetrics = \"" + address + "\"");
    route();
    here_->declare();
    here_->start();
    unsetenv("NOTIFY_SOCKET");
    EXPECT_TRUE(told("READY=1\n"));
    write(1, 7);
    EXPECT_TRUE(here_->reaches("messages_total", 7));
    const auto metrics = [&] {
        return run_program({"/usr/bin/curl", "-sS", "http://" + address + "/metrics"}).out;
    };
    EXPECT_NE(metrics().find("halvo_relay_messages_total{route=\"r\",direction=\"out\"} 7\n"),
              std::string::npos);

    here_->route("from = \"amqp:" + queue_ + "\"\nto = \"fq:" + here_->path("back") + "\"", "back");
    here_->save();
    here_->signal(SIGHUP);
    EXPECT_TRUE(told("READY=1\nRELOADING=1\nREADY=1\n"));
    EXPECT_TRUE(here_->reaches("messages_total", 7, "back"));
    const double used = here_->processor_seconds();
    here_->descriptors(3); // all taken
    const auto collector =
        start_program({"/usr/bin/curl", "-sS", "http://" + address}, here_->path("got"));
    usleep(1000000);
    EXPECT_LT(here_->processor_seconds() - used, 0.3)
        << "routes without messages sleep, and who has no descriptor for a collector";
    here_->descriptors(1024);
    EXPECT_EQ(collector->wait(), 0);
    const std::string log = here_->log();
    EXPECT_EQ(std::count(log.begin(), log.end(), '{'), std::count(log.begin(), log.end(), '\n'));
    here_->relay("nonsense = 1");
    here_->save();
    here_->signal(SIGHUP);
    EXPECT_TRUE(here_->logs("unknown key \\\"nonsense\\\""));
    run_program({"/bin/sed", "-i", "/nonsense/d; s/metrics = .*/metrics = \"there\"/",
                 here_->path("relay.toml")});
    here_->signal(SIGHUP);
    EXPECT_TRUE(here_->logs("no loopback address"));
    EXPECT_NE(metrics().find("halvo_relay_messages_total"), std::string::npos);
    EXPECT_EQ(here_->end(), 0);
    EXPECT_NE(fq({"get", here_->path("back")}).find("00000007 "), std::string::npos);
}

TEST_F(RelayRoutes, check_finds_what_is_wrong_and_changes_nothing) {
    route("", "dead_letter_queue = \"" + queue_ + ".dead\"");
    for (int i = 0; i < 2; ++i) // nothing is made
        expect_end(there_->tool("check"), 1, "FAULT  the broker has no queue " + queue_ + ";");
    there_->declare();
    expect_end(there_->tool("check"), 0);
    python("channel.queue_delete(queue)\n"
           "channel.queue_declare(queue, durable=True, arguments={'x-queue-type': 'quorum', "
           "'x-overflow': 'reject-publish', 'x-max-length': 5, 'x-single-active-consumer': True, "
           "'x-dead-letter-exchange': '', 'x-dead-letter-routing-key': queue + '.dead'})");
    expect_end(there_->tool("check"), 1, "FAULT  queue " + queue_);
}
