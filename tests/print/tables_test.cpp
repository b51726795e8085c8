#include <cstring>

#include "core/segment/ring.h"
#include "tests/print/scenario.h"
#include "tests/support/fixed_clock.h"

using namespace halvo::test;

namespace {

class Tables : public Status {
protected:
    Tables() {
        provide_baseline();
        const uint32_t last = mt->qend - mt->qbsz; // rpos stands at the ring's start
        auto *body = static_cast<char *>(halvo::body(halvo::slot_at(mt, last)));
        std::memset(body, ' ', 430);
        std::strcpy(body + 306, "안녕하세요 halvo\r\nend");
    }

    // The printed lines below the banner.
    template <class F>
    static std::vector<std::string> table(F print) {
        std::vector<std::string> all = lines(captured_stdout(print));
        all.erase(all.begin(), all.begin() + 3);
        return all;
    }
    // What a table prints of one channel; empty when it does not list it.
    template <class F>
    static std::string row(const std::string &name, F print) {
        for (const std::string &line : table(print))
            if (line.find(name) < 24) return line;
        return {};
    }
};

} // namespace

TEST_F(Tables, are_laid_out_to_the_column) {
    const struct {
        int (*print)(char);
        char mode;
        int result;
        const char *file;
    } cases[] = {
        {q_statprint_classic, 'a', 0, "classic_all.txt"},
        {q_statprint_classic, 's', 0, "classic_since_snapshot.txt"},
        {q_statprint, 's', 0, "plain_since_snapshot.txt"},
        {q_statprint2, 's', 3, "cells_since_snapshot.txt"},
        {q_statprint2, 'w', 3, "cells_without_escapes.txt"},
        {q_statlog, 's', 0, "log_line.txt"},
    };
    take_snapshot_of_before();
    for (const auto &[print, mode, result, file] : cases) {
        provide_baseline();
        EXPECT_EQ(captured_stdout([&] { EXPECT_EQ(print(mode), result); }), expected(file));
    }
}

TEST_F(Tables, the_log_keeps_idle_channels_and_ends_its_line_without_an_outbound_channel) {
    std::strcpy(qm_out_prefixes[0], "ZZ");
    const std::string line = captured_stdout([] { q_statlog('x'); });
    EXPECT_NE(line.find("\t한국,____,0,-220,0,3,0,2,0,0,0,0,0,__ _____,"), std::string::npos);
    EXPECT_EQ(line.substr(line.size() - 16), ",      ,      \t\n");
}

TEST_F(Tables, idle_channels_are_left_out_and_the_header_with_the_last_of_them) {
    const auto all = {q_statprint_classic, q_statprint};
    for (const auto print : all) {
        EXPECT_NE(row("MT01", [=] { print('x'); }), "");
        EXPECT_EQ(row("한국", [=] { print('x'); }), "");
    }
    mt->wtime = mt->rtime = xcn->fwtime = 0;
    for (const auto print : all) // nothing but the last message
        EXPECT_EQ(table([=] { print('x'); }).size(), 1u);
    EXPECT_EQ(table([] { EXPECT_EQ(q_statprint2('x'), 0); }).size(), 2u); // its header always
}

TEST_F(Tables, rates) {
    const auto classic = [] { return row("MT01", [] { q_statprint_classic('a'); }).substr(33, 5); };
    const auto plain = [] { return row("MT01", [] { q_statprint('a'); }).substr(34, 4); };
    const struct {
        uint64_t from, to;
        uint32_t milliseconds;
        const char *classic, *plain;
    } cases[] = {
        {0, 1999, 1000, " 1000", "1999"}, // one whole message per millisecond
        {0, 999, 1000, "    0", " 999"},
        {0, 1999, 0, "    0", "   0"},
        {100, 40, 1000, "    0", " -60"}, // counters start anew
    };
    for (const auto &rate : cases) {
        const auto measure = [&] {
            lastcheck[0].count = rate.from;
            mt->gcnt.count = rate.to;
            lastcheck[0].tstart =
                static_cast<int32_t>(static_cast<uint32_t>(q_day_millis()) - rate.milliseconds);
        };
        measure();
        EXPECT_EQ(classic(), rate.classic);
        measure();
        EXPECT_EQ(plain(), rate.plain);
    }
    lastcheck = nullptr;
    EXPECT_EQ(plain(), "   0");
}

TEST_F(Tables, the_millisecond_clock_starts_at_0_and_wraps) {
    EXPECT_EQ(q_day_millis(), 0);
    set_clock(kNow + 2147483, 647);
    EXPECT_EQ(q_day_millis(), 2147483647);
    set_clock(kNow + 2147484, 0);
    EXPECT_EQ(q_day_millis(), 2147484000 - 4294967296);
}

TEST_F(Tables, types_that_match) {
    take_snapshot_of_before();
    for (const int type : {5, 6, 7}) q_0()->qtcnt[type].tstart = 1;
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_tstatprint("sub"), 0); }), expected("types.txt"));
    // A type that is not in use keeps its cells in the rows, but not its name in the header.
    q_0()->qtcnt[5].tstart = 0;
    korea->tcnt[7].count = 9;
    std::strcpy(mt->qname, "xcnA");
    std::strcpy(xcn->qname, "sndB");
    EXPECT_EQ(captured_stdout([] { q_tstatprint("sub"); }), expected("types_out_of_use.txt"));
}

TEST_F(Tables, clients_vanish_after_nine_seconds) {
    mt->wtime = kNow - 9;
    mt->rtime = kNow - 10;
    xcn->fwtime = kNow - 9;
    xcn->frtime = kNow - 10;
    mt->pclients[0] = {71, {}, kNow - 9, {}};
    mt->pclients[9] = {72, {}, kNow, {}};
    mt->gclients[1] = {73, {}, kNow - 10, {}};
    mt->gclients[2] = {74, {}, kNow - 1, {}};
    EXPECT_EQ(captured_stdout([] { EXPECT_EQ(q_clientsprint(), 0); }), expected("clients.txt"));
}
