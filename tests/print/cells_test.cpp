// The pieces that the tables are made of: cells, elapsed times, and the banner above them.
#include <algorithm>
#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/fixed_clock.h"

using namespace halvo::test;

namespace {

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
