// Tables, and what they are made of: cells, elapsed times, and the banner above them.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "core/segment/ring.h"
#include "tests/print/scenario.h"
#include "tests/support/cancelled.h"
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
    static std::vector<std::string> table(auto print) {
        std::vector<std::string> all = lines(captured_stdout(print));
        all.erase(all.begin(), all.begin() + 3);
        return all;
    }
    // What a table prints of one channel; empty when it does not list it.
    static std::string row(const std::string &name, auto print) {
        for (const std::string &line : table(print))
            if (line.find(name) < 24) return line;
        return {};
    }
};

// The banner above the tables.
class Banner : public Status {
protected:
    // What stands between the two rules, without line breaks.
    static std::string title(char mode) {
        const std::string rule(139, '=');
        std::string all = captured_stdout([=] { q_printlogo2(mode); });
        EXPECT_EQ(all.find(rule + "\n"), 0u);
        EXPECT_EQ(all.rfind(rule + "\n"), all.size() - 140);
        all = all.substr(140, all.size() - 280);
        all.erase(std::remove(all.begin(), all.end(), '\n'), all.end());
        return all;
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
    for (const auto &rate : cases)
        for (const auto &[print, column, printed] :
             {std::tuple(&q_statprint_classic, 33u, rate.classic),
              std::tuple(&q_statprint, 34u, rate.plain)}) {
            lastcheck[0].count = rate.from;
            mt->gcnt.count = rate.to;
            lastcheck[0].tstart =
                static_cast<int32_t>(static_cast<uint32_t>(q_day_millis()) - rate.milliseconds);
            const std::string line = row("MT01", [print = print] { print('a'); });
            EXPECT_EQ(line.substr(column, std::strlen(printed)), printed);
        }
    lastcheck = nullptr;
    EXPECT_EQ(row("MT01", [] { q_statprint('a'); }).substr(34, 4), "   0");
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

TEST_F(Tables, an_empty_needle_matches_every_type) {
    for (int type = 1; type < HALVO_TYPES; ++type) q_0()->qtcnt[type].tstart = type <= 6;
    const std::vector<std::string> table = this->table([] { q_tstatprint(""); });
    EXPECT_EQ(table[0].size(), 44u + 6 * 9);
    EXPECT_EQ(table[1].size(), 44u + 4095 * 9);
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

TEST(Cells, keep_their_width) {
    set_clock(kNow);
    const struct {
        void (*print)();
        const char *printed;
    } cases[] = {
        {[] { q_print_txt(6, "큐"); }, "    큐"}, // a syllable counts two
        {[] { q_print_txt(-6, "ab"); }, "ab    "},
        {[] { q_print_txt(1, "long"); }, "long"},
        {[] { q_print_txt(2, nullptr); }, "  "},
        {[] { q_print_txt_indent(-8, "ab", 3); }, "   ab   "},
        {[] { q_print_txt_indent(8, "ab", 3); }, "      ab"},
        {[] { q_print_txt_indent(-4, "ab", -1); }, "ab  "},
        {[] { q_print_txt_indent(-4, "ab", 7); }, "       ab"},
        {[] { q_print_num(4, 0); }, "    "},
        {[] { q_print_num(4, -12); }, " -12"},
        {[] { q_print_num(2, 9223372036854775807); }, "9223372036854775807"},
        {[] { q_print_num2(4, 7, -5, 12); }, "   7/12  "},
        {[] { q_print_num2(4, 0, 5, 12); }, "      /12"},
        {[] { q_print_num2(4, 7, 5, 0); }, "   7     "},
        {[] { q_print_elapsed(0); }, "        "},
        {[] { q_print_elapsed(kNow - 61); }, "00:01:01"},
        {[] { q_print_elapsed(kNow - 86399); }, "23:59:59"},
        {[] { q_print_elapsed(kNow - 86400); }, "01-00:00"},
        {[] { q_print_elapsed(kNow - 90000); }, "01-01:00"},
        {[] { q_print_elapsed(kNow + 5); }, "00:00:-5"}, // a clock that was set back
    };
    for (const auto &[print, printed] : cases) EXPECT_EQ(captured_stdout(print), printed);
    captured_stdout([] { q_print_txt(-6, "ab"); });
    EXPECT_STREQ(cellformat, "%-6s");
    char text[HALVO_ELAPSED_SIZE] = "x";
    q_print_elapsed_str(text, 0);
    EXPECT_STREQ(text, "");
}

#ifndef __SANITIZE_ADDRESS__ // see tests/support/cancelled.h
TEST_F(Tables, are_printed_to_their_end_by_a_thread_that_is_cancelled) {
    const std::function<void()> prints[] = {
        [] { q_printlogo(); },
        [] { q_statprint_classic('a'); },
        [] { q_statprint('a'); },
        [] { q_statprint2('a'); },
        [] { q_tstatprint(""); },
        [] { q_clientsprint(); },
        [] { q_statlog('a'); },
        [] { q_load_print_options("/proc/version"); },
        [] { qm_print_last_msg(); },
        [] { q_print_txt(1, "a"); },
        [] { q_print_txt_indent(1, "a", 0); },
        [] { q_print_num2(1, 1, 1, 1); },
        [] { q_print_elapsed(1); },
        [this] { q_print_rwrw_bufs(mt); },
    };
    captured_stdout([&] {
        setvbuf(stdout, nullptr, _IONBF, 0); // so that each text is written at once
        for (const std::function<void()> &print : prints) expect_cancelled(print);
    });
}
#endif

// With a snapshot it stands in the tables that are kept in `expected`.
TEST_F(Banner, without_a_snapshot) {
    const std::string plain =
        "☆    HALVO Queue Monitor Release1.02 Uptime: 3days 현재:2023.11.16 02:00:00 ";
    EXPECT_EQ(title('f'), plain + "\x1b[0m");
    halvo_print_option colours{HALVO_OPTION_SPECIAL, 0, 1, 36};
    qoptTitle = &colours;
    EXPECT_EQ(title('w'), "\x1b[1m\x1b[36m" + plain);
    take_snapshot(0); // never taken
    EXPECT_EQ(title('w'), "\x1b[1m\x1b[36m" + plain);
    q_0()->uptime = 0; // of a fresh segment
    EXPECT_NE(title('f').find("Uptime: 0days"), std::string::npos);
    EXPECT_EQ(q_0()->uptime, kNow);
}

TEST_F(Banner, stars_of_a_real_host_change_places_and_colours) {
    take_snapshot(kNow);
    setenv("HALVO_HOST_TYPE", "REAL", 1);
    const auto stars = [](char mode) {
        const std::string line = title(mode);
        return line.substr(0, line.find(mode == 'w' ? " " : "\x1b[0m"));
    };
    titleToggle = 30001; // starts over
    EXPECT_EQ(stars('f'), "\x1b[30m★\x1b[31m☆");
    EXPECT_EQ(titleToggle, 1);
    EXPECT_EQ(stars('f'), "\x1b[31m☆\x1b[32m★");
    titleToggle = 6;
    EXPECT_EQ(stars('f'), "\x1b[36m★\x1b[30m☆");
    EXPECT_EQ(stars('w'), "☆★");
    setenv("HALVO_HOST_TYPE", "REALLY", 1);
    EXPECT_EQ(title('w').substr(0, 6), "☆    ");
}
