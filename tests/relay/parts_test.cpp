// The parts of the relay that need no broker: windows, numbers, configuration, a state file; and a
// route out beside a broker that answers as it is told.
#include <sys/time.h>

#include <functional>
#include <random>
#include <set>

#include "halvo/fq.h"
#include "tests/support/files.h"
#include "tests/support/frx_fixture.h"
#include "tools/relay/base/config.h"
#include "tools/relay/route/numbering.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

// In place of the engine's: answers one batch, and then the route is to stop.
std::unique_ptr<Publisher> connect_publisher(const BrokerConfig &, unsigned) {
    struct Scripted : Publisher {
        void send(const std::string &, const Outgoing &) override {}
        std::vector<Verdict> answers(int, int, const Stop &stop) override {
            const_cast<Stop &>(stop) = true;
            return {Verdict::confirmed, Verdict::returned, Verdict::open};
        }
        BrokerError why_open() const override { return {BrokerError::lost, "silence"}; }
        void serve() override {}
        bool blocked() const override { return false; }
        std::string return_reason() const override { return "NO_ROUTE"; }
    };
    return std::make_unique<Scripted>();
}

} // namespace halvo::relay

namespace {

thread_local std::function<void()> before_opening; // an end: right before this thread asks for it

} // namespace

// In place of the system's, which the library asks for the limit of an opening.
extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval *now, void *) noexcept {
    if (const auto act = std::exchange(before_opening, nullptr)) act();
    timespec time{};
    const int result = clock_gettime(CLOCK_REALTIME, &time);
    *now = {time.tv_sec, time.tv_nsec / 1000};
    return result;
}

using namespace halvo::relay;
using namespace halvo::test;

TEST(RelayWindow, remembers_the_last_numbers_of_each_source) {
    constexpr uint64_t kFirst = 100000;
    static Window table[kSources];
    Windows windows(table);
    std::mt19937 random(7);
    std::map<uint64_t, std::set<uint64_t>> sources; // what was added, while it was in the window
    uint64_t missing = 0;
    for (int i = 0; i < 30000; ++i) {
        const uint64_t source = 256 * (1 + random() % 3);
        std::set<uint64_t> &added = sources[source];
        if (added.empty()) windows.add(source, *added.insert(kFirst).first);
        const uint64_t top = *added.rbegin();
        // Mostly the next one, at times a leap, a straggler, one from long ago.
        const auto kind = random() % 1000;
        const uint64_t number = kind == 0    ? top + 20000
                                : kind < 50  ? top + 1 + random() % 40
                                : kind < 200 ? top - random() % 9000
                                             : top + 1;
        const bool remembered = number + kWindow > top;
        ASSERT_EQ(windows.has(source, number), remembered && added.count(number))
            << number << " of " << top;
        missing += windows.add(source, number);
        if (remembered) added.insert(number);
        ASSERT_EQ(windows.has(source, number), remembered);
    }
    for (const auto &[source, added] : sources) { // less what fell out and had never come
        const uint64_t end = *added.rbegin() - kWindow;
        const auto came = std::distance(added.upper_bound(kFirst), added.upper_bound(end));
        missing -= end - kFirst - static_cast<uint64_t>(came);
    }
    EXPECT_EQ(missing, 0U);
}

TEST(RelayWindow, gives_up_the_source_that_was_silent_longest) {
    static Window table[kSources];
    Windows windows(table);
    for (uint64_t source = 1; source <= kSources; ++source) windows.add(source, 5);
    windows.add(1, 6);
    windows.add(kSources + 1, 5);
    EXPECT_TRUE(windows.has(1, 5));
    EXPECT_FALSE(windows.has(2, 5));
    EXPECT_TRUE(windows.has(3, 5));
}

namespace {

RouteConfig route_from(const Endpoint &from) {
    RouteConfig route;
    route.name = "r";
    route.from = from;
    route.to = {Endpoint::queue, "q"};
    return route;
}

// A process that dies at a chosen moment of a batch, and what its successor makes of it.
class RelayNumbers : public testing::Test {
protected:
    Segment segment_ = SegmentBuilder().channel("MT01", 'M', 8, 64).build();
    const RouteConfig route_ = route_from({Endpoint::channel, "MT01"});
    // A relay that lists a batch of two, does what is asked and is killed.
    void die_in_batch(Arriving &left, void (*what)(Sink &)) {
        Peer dead([&] {
            initialise(segment_);
            const auto sink = open_channel_sink("MT01", 1, left);
            for (const uint32_t i : {0, 1}) sink->mark(i, {1, "not readable yet", 1, {}}, 0);
            sink->describe(left.place);
            left.count = 2;
            what(*sink);
            return raise(SIGKILL);
        });
        EXPECT_EQ(dead.wait(), 128 + SIGKILL);
    }
    // Runs in a process of its own, with the state of before; returns how it ended.
    template <class F>
    int life(F f) {
        Peer process([&] {
            if (initialise(segment_) != ESMS_OK) return 1;
            StateFile state(segment_.path("state"), "test");
            const auto source = open_channel_source("MT01");
            Numbering numbering(route_, state, *source);
            f(*source, numbering);
            return 0;
        });
        return process.wait();
    }
    template <class F>
    void killed_after(F f) {
        const int status = life([&](Source &source, Numbering &numbering) {
            f(source, numbering);
            raise(SIGKILL);
        });
        EXPECT_EQ(status, 128 + SIGKILL);
    }
    void put(int count) {
        Peer writer([&] {
            segment_.attach();
            halvo_channel *q = segment_.open("MT01", 'w');
            for (int i = 0; i < count; ++i) EXPECT_EQ(write(q, "x"), ESMS_OK);
        });
        EXPECT_EQ(writer.wait(), 0);
    }
    uint64_t number_of_first() {
        auto &found = shared_object<uint64_t>();
        const int status = life([&](Source &source, Numbering &numbering) {
            numbering.plan(source.take(8, 0));
            found = numbering.identity(0).number;
            source.give_back();
        });
        EXPECT_EQ(status, 0);
        return found;
    }
};

} // namespace

TEST_F(RelayNumbers, a_message_keeps_its_number_whenever_the_relay_dies) {
    put(6);
    killed_after([](Source &source, Numbering &) { source.take(4, 0); });
    EXPECT_EQ(number_of_first(), 1U) << "marked, not stored";
    killed_after([](Source &source, Numbering &numbering) { numbering.plan(source.take(4, 0)); });
    EXPECT_EQ(number_of_first(), 1U) << "stored, not released";
    killed_after([](Source &source, Numbering &numbering) {
        numbering.plan(source.take(4, 0));
        source.release(1);
    });
    EXPECT_EQ(number_of_first(), 2U) << "one released";
    killed_after([](Source &source, Numbering &numbering) {
        numbering.plan(source.take(4, 0));
        numbering.before_release(2);
        source.release(2);
        numbering.released(2);
        numbering.plan(source.take(4, 0));
    });
    EXPECT_EQ(number_of_first(), 4U) << "two released, the next batch stored";
    put(4);
    killed_after([](Source &source, Numbering &numbering) {
        numbering.plan(source.take(8, 0));
        source.release(7); // all but one slot of the ring
    });
    put(2);
    EXPECT_EQ(number_of_first(), 11U);
}

TEST_F(RelayNumbers, another_reader_makes_repeats_at_worst) {
    put(6);
    EXPECT_EQ(number_of_first(), 1U); // stored for a batch of 6
    Peer reader([&] {
        segment_.attach();
        halvo_channel *q = segment_.open("MT01", 'r');
        return read(q) == "x" && read(q) == "x" ? 0 : 1;
    });
    EXPECT_EQ(reader.wait(), 0);
    EXPECT_EQ(number_of_first(), 3U) << "the numbers follow the slots";
}

TEST_F(RelayNumbers, beside_a_damaged_header_are_none) {
    ASSERT_EQ(initialise(segment_), ESMS_OK);
    halvo_channel *q = segment_.channel("MT01");
    q->qcnt = 0;
    const auto source = open_channel_source("MT01");
    q->qbsz = 0;
    std::memset(q->qname, 'x', sizeof(halvo_channel::qname) + 1); // no end
    Sending sending{};
    source->describe(sending.place);
    sending.place.slot = 9;
    EXPECT_EQ(source->consumed_since(sending), std::nullopt);
    q->qend = 0;
    EXPECT_THROW(source->take(1, 0), EndError);
}

namespace {

// A file queue from which another program takes an item whenever a batch is given back.
class Contended : public Source {
public:
    explicit Contended(const std::string &path) : path_(path), queue_(open_file_source(path, 1)) {}
    uint32_t take(uint32_t most, int limit) override { return queue_->take(most, limit); }
    Message message(uint32_t index) override { return queue_->message(index); }
    void release(uint32_t count) override { queue_->release(count); }
    void describe(Place &place) override { queue_->describe(place); }
    int64_t waiting() override { return queue_->waiting(); }
    std::optional<uint32_t> consumed_since(const Sending &sending) override {
        return queue_->consumed_since(sending);
    }
    void give_back() override {
        queue_->give_back();
        fqtrans other{};
        char item[64 + FQ_ITEM_EXTRA];
        EXPECT_GT(fq_dequeue(-1, path_.c_str(), item, 64, &other), 0);
        EXPECT_EQ(fq_dequeue_commit(-1, &other), 0);
    }

private:
    const std::string path_;
    const std::unique_ptr<Source> queue_;
};

} // namespace

TEST(RelayFileNumbers, a_part_of_a_batch_is_not_taken_for_another_one_of_the_same_words) {
    const TestDirectory directory;
    const std::string path = directory.path("mo");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(fq_enqueue_away(-1, 0, 1, path.c_str(), "same", 4), 0);
    const RouteConfig route = route_from({Endpoint::file_queue, path});
    StateFile state(directory.path("state"), "test");
    Contended source(path);
    Numbering numbering(route, state, source);
    numbering.plan(source.take(3, 0));
    EXPECT_THROW(numbering.before_release(2), EndError) << "the third one was not sent";
}

TEST_F(RelayNumbers, another_writers_messages_are_not_taken_for_those_of_a_dead_relay) {
    auto &left = shared_object<Arriving>();
    die_in_batch(left, [](Sink &) {});
    ASSERT_EQ(initialise(segment_), ESMS_OK);
    before_opening = [&] {
        Peer other([&] {
            halvo_channel *q = segment_.open("MT01", 'w');
            q_recover(0, 'w');
            return write(q, "1") + write(q, "2");
        });
        EXPECT_EQ(other.wait(), 0);
    };
    const auto sink = open_channel_sink("MT01", 1, left);
    EXPECT_EQ(sink->committed_since(left), std::nullopt);
}

TEST_F(RelayNumbers, heirs_that_die_before_they_settle_leave_the_batch_known) {
    auto &left = shared_object<Arriving>();
    die_in_batch(left, [](Sink &sink) { sink.commit(); });
    for (const bool opens : {true, true, false, true}) {
        Peer heir([&] {
            initialise(segment_);
            if (!opens) before_opening = [] { raise(SIGKILL); };
            const auto sink = open_channel_sink("MT01", 1, left);
            return raise(SIGKILL);
        });
        EXPECT_EQ(heir.wait(), 128 + SIGKILL);
    }
    ASSERT_EQ(initialise(segment_), ESMS_OK);
    EXPECT_EQ(open_channel_sink("MT01", 1, left)->committed_since(left), 2U);
}

TEST(RelayConfig, faults_name_their_line) {
    const TestDirectory directory;
    const std::string path = directory.path("c.toml");
    const std::string head = "[relay]\nkey = \"k\"\nstate = \"s\"\n[broker]\nurl = \"amqp://h\"\n";
    const std::string route = "[[route]]\nname = \"r\"\nfrom = \"channel:A\"\nto = \"amqp:q\"\n";
    const struct {
        std::string text, fault;
    } cases[] = {
        {head + "[[route]]\nname = \"r\"\nfrom = \"amqp:a\"\nto = \"amqp:b\"\n", ":6: of \"from\""},
        {head + "[[route]]\nname = \"r\"\nfrom = \"chanel:a\"\nto = \"amqp:b\"\n",
         ":8: it must be \"channel:NAME\""},
        {head + route + "batch = 5000\n", ":10: it must be a whole number from 1 to 4096"},
        {head + route + "shard_by = \"body:3\"\n", ":10: it must be \"type\" or"},
        {head + route + "colour = 1\n", ":10: unknown key \"colour\""},
        {head + route + route, ":10: two routes are called r"},
        {head + "[[route]]\nname = \"../r\"\nfrom = \"channel:A\"\nto = \"amqp:q\"\n",
         ":6: a route's name"},
        {"[broker]\nurl = \"amqp://user:secret@h\"\n", ":2: credentials do not stand in a url"},
        {"[broker]\nurl = \"http://h\"\n", ":2: a url begins with"},
        {"[broker]\nurl = \"amqp://h:0\"\n", ":2: not a port: 0"},
        {"[broker]\nurl = \"amqp://h\"\nca = \"x\"\n",
         ":1: ca and certificate are for an amqps:// url"},
        {head, ":1: there is no [[route]]"},
        {"[relay]\nstate = \"s\"\n[broker]\nurl = \"amqp://h\"\n" + route,
         ":1: [relay] has no key"},
        {head +
             "[[route]]\nname = \"r\"\nfrom = \"fq:/q\"\nto = \"amqp:q\"\ndead_letters = \"/q\"\n",
         ":6: the dead letters need another file queue"},
        {"=", ":1:"},
    };
    for (const auto &one : cases) {
        write_file(path, one.text);
        try {
            load_config(path);
            ADD_FAILURE() << one.text;
        } catch (const ConfigError &error) {
            EXPECT_EQ(std::string(error.what()).find(path + one.fault), 0U) << error.what();
        }
    }
    write_file(path,
               "[relay]\nstate = \"s\"\n[broker]\nurl = [\"amqps://[::1]:1/v\", \"amqps://b/v\"]\n"
               "[[route]]\nname = \"r\"\nfrom = \"fq:/q\"\nto = \"amqp:q\"\nshards = 2\n");
    const Config config = load_config(path);
    EXPECT_EQ(config.broker.addresses, (std::vector<Address>{{"::1", 1}, {"b", 5671}}));
    EXPECT_EQ(config.routes[0].queues(), (std::vector<std::string>{"q.0", "q.1"}));
    EXPECT_EQ(config.routes[0].dead_letters, "s/r.dead");
}

TEST(RelayState, is_opened_beside_those_who_look_at_it) {
    const TestDirectory directory;
    const std::string path = directory.path("state");
    StateFile(path, "id");
    Peer looking([&] {
        for (bool running;;) read_figures(path, "id", running);
    });
    for (int i = 0; i < 3000; ++i) {
        ASSERT_NO_THROW(StateFile(path, "id"));
        usleep(20);
    }
    looking.kill(SIGKILL);
}

TEST(RelayOut, what_was_answered_before_the_silence_is_not_sent_again) {
    const TestDirectory directory;
    const std::string queue = directory.path("mo");
    for (const char *item : {"1", "2", "3"}) fq_enqueue_away(-1, -1, 1, queue.c_str(), item, 1);
    RouteConfig route = route_from({Endpoint::file_queue, queue});
    route.wait_for_route = false;
    route.dead_letters = directory.path("dead");
    StateFile state(directory.path("state"), "test");
    Stop stop{false};
    RouteContext context{{}, route, state, stop, Backoff(1, 1)};
    carry_out(context);
    EXPECT_EQ(state.figures().messages, 2U);
    EXPECT_EQ(open_file_source(queue, 0)->take(9, 0), 1U);
}
