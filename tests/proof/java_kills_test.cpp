// Java programs that are killed and started again at any moment, and what they leave: a gateway
// between two C programs, and VMs of different widths and versions at the ends of one channel.
#include <atomic>

#include "tests/jni/vm.h"
#include "tests/proof/form.h"
#include "tests/support/frx_fixture.h"

using namespace halvo::test;

namespace {

constexpr int kPatience = 60000; // milliseconds

void sleep_for(uint64_t milliseconds) { usleep(static_cast<useconds_t>(milliseconds * 1000)); }

// Waits until moved() differs from what it was; false when it does not.
template <class Moved>
bool goes_on(Moved moved) {
    return comes_true([&, before = moved()] { return moved() != before; }, kPatience / 1000);
}

// ---- The gateway

// What the feeder has sent and the collector got, in memory that all processes share.
struct Tally {
    std::atomic<int> sent, got, doubled;
    std::atomic<bool> enough, fed; // no more is wanted; no more will be sent
};

int feed(const Segment &s, Tally &tally) {
    FrxChannel out;
    if (!start_with(s, out, 'w', s.number("FROM"))) return 1;
    for (int number = 0; !tally.enough; ++number) {
        if (frx_write(&out, 7, &number, sizeof number, kPatience) != ESMS_OK) return 3;
        ++tally.sent;
        if (number % 50 == 0) sleep_for(1);
    }
    tally.fed = true;
    return 0;
}

int collect(const Segment &s, Tally &tally) {
    FrxChannel in;
    if (!start_with(s, in, 'r', s.number("TO"))) return 1;
    std::vector<bool> seen;
    // A message may come before the feeder has counted it, so that only his end tells how many.
    for (int idle = 0; !tally.fed || tally.got < tally.sent;) {
        int number = 0, type = 0;
        const int length = frx_readBody(&in, &type, &number, sizeof number, 1000);
        if (length == ESMS_TIMEOUT && ++idle < kPatience / 1000) continue;
        if (length != int{sizeof number} || type != 7) return 3;
        idle = 0;
        const auto at = static_cast<size_t>(number);
        if (at >= seen.size()) seen.resize(at + 1);
        seen[at] ? ++tally.doubled : ++tally.got;
        seen[at] = true;
    }
    return 0;
}

// ---- Two VMs

struct End {
    int version, width;
    std::string java = find_java(version, width);
    std::string library = find_library(width);
    std::string text() const { return std::to_string(version) + "/" + std::to_string(width); }
    bool is_there() const { return !java.empty() && !library.empty(); }
};

int next_of(const std::string &ledger, int index = 0) {
    std::ifstream file(ledger, std::ios::binary);
    int words[2] = {};
    file.read(reinterpret_cast<char *>(words), sizeof words);
    return words[index];
}

void exchange(const End &writer, const End &reader) {
    for (const End &end : {writer, reader})
        if (!end.is_there())
            GTEST_SKIP() << "no JDK " << end.text()
                         << " under /usr/lib/jvm, or no library of its width is built";
    const int count = length(40000, 1000000), kills = length(4, 60);
    const Segment s = SegmentBuilder().channel("X", 'M', 128, 64).build();
    std::mt19937 random(seed());
    const End *ends[] = {&writer, &reader};
    const char *const roles[] = {"write", "read"};
    std::unique_ptr<Peer> peers[2];
    const auto start = [&](int i) {
        Words options{"-Dhalvoipc.library=" + ends[i]->library};
        if (ends[i]->version >= 24) options.push_back("--enable-native-access=ALL-UNNAMED");
        const Words words = vm_words(s, options,
                                     {"com.morvesk.halvo.ipc.KilledPeer", s.key_file(), "X",
                                      roles[i], std::to_string(count), s.path(roles[i])},
                                     ends[i]->java);
        peers[i] = start_program(words, s.path("log"));
    };
    start(0);
    start(1);
    int killed = 0;
    for (; killed < kills && next_of(s.path("read")) < count; ++killed) {
        ASSERT_TRUE(goes_on([&] { return next_of(s.path("read")); })) << content_of(s.path("log"));
        sleep_for(random() % 40);
        const int victim = static_cast<int>(random() % 2);
        if (next_of(s.path(roles[victim])) >= count) break;
        peers[victim]->kill(SIGKILL);
        peers[victim]->wait();
        start(victim);
    }
    for (const auto &peer : peers) EXPECT_EQ(peer->wait(), 0) << content_of(s.path("log"));
    const std::string what = "Java " + writer.text() + " to Java " + reader.text() + ": ";
    figure(what + "VMs killed", "at least 1", killed);
    figure(what + "messages taken", std::to_string(count), next_of(s.path("read")));
    figure(what + "messages that came twice, beside a kill",
           "at most " + std::to_string(100 * killed), next_of(s.path("read"), 1));
    EXPECT_LE(next_of(s.path("read"), 1), 100 * killed);
}

} // namespace

TEST(JavaKills, a_gateway_loses_nothing) {
    const int kills = length(5, 100);
    const Segment s =
        SegmentBuilder().channel("FROM", 'M', 128, 64).channel("TO", 'M', 128, 64).build();
    std::mt19937 random(seed());
    auto &tally = shared_object<Tally>();
    Peer feeder([&] { return feed(s, tally); });
    Peer collector([&] { return collect(s, tally); });
    const Words words =
        vm_words(s, {kLibrary}, {"Gateway", s.key_file(), "FROM", s.path("queue"), "TO"});
    std::unique_ptr<Peer> gateway;
    const auto start = [&] { gateway = start_program(words, s.path("log")); };
    for (int i = 0; i < kills; ++i) {
        start();
        if (i % 5 != 4) { // every fifth while it starts
            ASSERT_TRUE(goes_on([&] { return tally.got.load(); })) << content_of(s.path("log"));
        }
        sleep_for(random() % 60);
        gateway->kill(SIGKILL);
        EXPECT_EQ(gateway->wait(), 128 + SIGKILL) << content_of(s.path("log"));
    }
    start();
    tally.enough = true;
    EXPECT_EQ(feeder.wait(), 0);
    EXPECT_EQ(collector.wait(), 0) << content_of(s.path("log"));
    const int sent = tally.sent;
    figure("a Java gateway killed and started again, times", std::to_string(kills), kills);
    figure("messages through it that are missing", "0", sent - tally.got);
    figure("messages through it", "-", sent);
    figure("messages through it that came twice", "at most " + std::to_string(200 * kills),
           tally.doubled);
    EXPECT_LE(tally.doubled, 200 * kills);
}

TEST(JavaKills, java_17_32_writes_to_java_17_64) { exchange({17, 32}, {17, 64}); }
TEST(JavaKills, java_17_64_writes_to_java_25_64) { exchange({17, 64}, {25, 64}); }
TEST(JavaKills, java_25_64_writes_to_java_17_32) { exchange({25, 64}, {17, 32}); }
