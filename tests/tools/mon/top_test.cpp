// halvo-mon top as its users see it, and the rules of its rows, columns and texts.
#include <cstdlib>

#include "tests/print/scenario.h"
#include "tests/support/ipc.h"
#include "tests/support/ring.h"
#include "tests/support/terminal.h"
#include "tests/tools/mon/samples.h"
#include "tools/mon/screen/details.h"
#include "tools/mon/screen/terminal.h"
#include "tools/mon/screen/text.h"
#include "tools/mon/screen/top_rows.h"

using namespace halvo::mon;
using namespace halvo::test;

namespace {

std::string order(const Sample &sample, const Choice &choice) {
    std::string names;
    for (const size_t row : rows_of(sample, choice)) names += sample.channels[row].name;
    return names;
}

} // namespace

TEST(TopRows, are_sorted_and_filtered_as_chosen) {
    Sample sample = sample_of(0, {{"a", 1}, {"b", 3}, {"C", 2}, {"d", 3}});
    sample.channels[2].trouble = Trouble::full;
    sample.channels[0].reader.name = "Billing";
    EXPECT_EQ(order(sample, {}), "Cbda"); // trouble, then depth
    const auto by_name = [&](bool reversed, const char *filter = "", char type = 0,
                             bool trouble = false) {
        return order(sample, {kNameColumn, reversed, filter, type, trouble});
    };
    EXPECT_EQ(by_name(false), "Cabd");
    EXPECT_EQ(by_name(true), "dbaC");
    EXPECT_EQ(by_name(false, "BILL"), "a");
    EXPECT_EQ(by_name(false, "", 'F'), "bd");
    EXPECT_EQ(by_name(false, "", 0, true), "C");
    EXPECT_EQ(next_type(sample, 0), 'F');
    EXPECT_EQ(next_type(sample, 'F'), 'M');
    EXPECT_EQ(next_type(sample, 'M'), 0);
}

TEST(TopRows, columns_fit_every_width_and_the_sorted_one_is_there) {
    for (int width = 40; width <= 250; ++width)
        for (size_t sorted = 0; sorted < columns().size(); ++sorted) {
            int used = -1;
            bool there = false;
            for (const Placed &place : placed(width, static_cast<int>(sorted))) {
                used += place.width + 1;
                there |= place.column == static_cast<int>(sorted);
            }
            EXPECT_LE(used, width);
            EXPECT_TRUE(there) << width << ' ' << columns()[sorted].title;
        }
    EXPECT_EQ(placed(250, 0).size(), columns().size());
}

TEST(TopRows, texts_keep_to_their_cells) {
    EXPECT_EQ(short_number(1234567, 7), "1234567");
    EXPECT_EQ(short_number(12345678, 7), "12346k");
    EXPECT_EQ(short_number(-12345678, 7), "-12346k");
    EXPECT_LE(short_number(1e19, 5).size(), 5u);
    EXPECT_EQ(short_age(119) + short_age(7199) + short_age(86400) + short_age(172800),
              "119s119m24h2d");
    EXPECT_EQ(escaped_message("한\n\\\x1b[2J\xff"), utf8("한") + "\\n\\\\\\x1b[2J\\xff");
    setlocale(LC_CTYPE, "C.UTF-8");
    EXPECT_EQ(field(utf8("한국어"), 5), L"\ud55c\uad6d ");
    EXPECT_EQ(field("a\xff\n\x1b", 5, false), L"a??? ");
}

TEST(MonitorText, the_locale_of_the_environment_decides_about_utf8) {
    const auto is_utf8 = [](const char *all, const char *type, const char *lang) {
        setenv("LC_ALL", all, 1);
        setenv("LC_CTYPE", type, 1);
        setenv("LANG", lang, 1);
        return locale_is_utf8();
    };
    EXPECT_TRUE(is_utf8("", "", "ko_KR.UTF-8"));
    EXPECT_TRUE(is_utf8("", "C.utf8", "ko_KR.eucKR"));
    EXPECT_FALSE(is_utf8("C", "", "ko_KR.UTF-8"));
    EXPECT_FALSE(is_utf8("", "", ""));
}

TEST(MonitorText, bytes_that_are_no_character_do_not_stop_the_conversion) {
    EXPECT_EQ(to_utf8("a\xFF큐\xC5"), "a\xEF\xBF\xBD\xED\x81\x90\xEF\xBF\xBD");
    EXPECT_EQ(to_utf8(std::string(5000, 'x') + "큐"), std::string(5000, 'x') + utf8("큐"));
}

TEST(MonitorText, only_attributes_reach_the_terminal) {
    const std::string row = "\x1b[2K최종\x1b[1;33mtext\x1b[0m\n\t";
    EXPECT_EQ(for_terminal(row, true), "최종\x1b[1;33mtext\x1b[0m\n\t");
    EXPECT_EQ(for_terminal(row, false), "최종text\n\t");
    // A message that would like to rename the window, move the cursor, ring, or hide itself.
    EXPECT_EQ(for_terminal("\x1b]0;root\x07\x1b[5A\x1b[31\r\x9b"
                           "8m\x08",
                           true),
              "]0;root?[5A[31??8m?");
    EXPECT_EQ(for_terminal("end\x1b", true), "end");
    EXPECT_EQ(for_terminal("end\x1b[", true), "end[");
}

TEST(MonitorText, lines_are_clipped_by_columns) {
    EXPECT_EQ(clipped("\x1b[1mab큐c\x1b[0m", 5), "\x1b[1mab큐c\x1b[0m");
    EXPECT_EQ(clipped("\x1b[1mab큐c\x1b[0m", 3), "\x1b[1mab\x1b[0m"); // not half a syllable
    EXPECT_EQ(clipped("abc", 0), "");
}

TEST(OnScreen, shows_sorts_filters_and_follows_the_segment) {
    if (!halvo::test::Terminal::available()) GTEST_SKIP() << "needs tmux";
    const Segment segment = SegmentBuilder()
                                .channel("MT01", 'M', 4, 64)
                                .channel("한국", 'M', 4, 64)
                                .channel("FQ01", 'F', 4, 64)
                                .build();
    segment.attach();
    halvo_channel *q = segment.open("한국", 'w');
    ASSERT_EQ(write(q, "wait\ning"), ESMS_OK);
    const halvo::test::Terminal terminal(segment.path(""), 80, 24);
    const auto row = [&] { return lines(terminal.screen())[4]; };
    terminal.run(HALVO_BIN "/halvo-mon top --every 0.2 --utf8 -k " + segment.key_file() +
                 "; echo status $?");
    ASSERT_TRUE(terminal.wait_for("3 channels  depth 1 "));
    EXPECT_EQ(row().find(utf8("no reader 한국 ")), 0u) << terminal.screen();
    EXPECT_TRUE(terminal.shows(std::to_string(getpid()) + "*"));
    ASSERT_EQ(write(q, "more"), ESMS_OK);
    EXPECT_TRUE(terminal.wait_for("3 channels  depth 2 "));

    terminal.resize(200, 50);
    EXPECT_TRUE(terminal.wait_for("W-NAME"));
    terminal.press("Right"); // by name
    EXPECT_TRUE(terminal.wait_for("sorted by CHANNEL"));
    EXPECT_NE(row().find("FQ01"), std::string::npos);
    terminal.type("/" + utf8("국"));
    EXPECT_TRUE(terminal.wait_for("1 shown"));
    terminal.press("Enter");
    terminal.press("Enter");
    EXPECT_TRUE(terminal.wait_for("type 1, 8 bytes: wait\\ning"));
    terminal.press("q");
    terminal.press("Escape");
    EXPECT_TRUE(terminal.wait_for("MT01"));

    remake(segment.key_file(), {"NEW1"});
    EXPECT_TRUE(terminal.wait_for("NEW1"));
    halvo::qm::remove(segment.key_file());
    EXPECT_TRUE(terminal.wait_for("waiting for a segment"));
    terminal.press("q");
    EXPECT_TRUE(terminal.wait_for("status 0"));
    EXPECT_EQ(terminal.state("#{alternate_on} #{cursor_flag}"), "0 1\n");
}
