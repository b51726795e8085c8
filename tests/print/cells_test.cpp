#include "tests/print/scenario.h"
#include "tests/support/fixed_clock.h"

using namespace halvo::test;

namespace {

template <class F>
std::string printed(F f) {
    return "[" + captured_stdout(f) + "]";
}

std::string elapsed(int32_t seconds) {
    char text[HALVO_ELAPSED_SIZE];
    q_print_elapsed_str(text, kNow - seconds);
    return text;
}

} // namespace

TEST(Cells, text_stands_right_or_left) {
    EXPECT_EQ(printed([] { q_print_txt(6, "큐"); }), "[    큐]"); // a syllable counts two
    EXPECT_EQ(printed([] { q_print_txt(-6, "ab"); }), "[ab    ]");
    EXPECT_STREQ(cellformat, "%-6s");
    EXPECT_EQ(printed([] { q_print_txt(1, "long"); }), "[long]");
    EXPECT_EQ(printed([] { q_print_txt(2, nullptr); }), "[  ]");
}

TEST(Cells, indented_text_keeps_the_width) {
    EXPECT_EQ(printed([] { q_print_txt_indent(-8, "ab", 3); }), "[   ab   ]");
    EXPECT_EQ(printed([] { q_print_txt_indent(8, "ab", 3); }), "[      ab]");
    EXPECT_EQ(printed([] { q_print_txt_indent(-4, "ab", -1); }), "[ab  ]");
    EXPECT_EQ(printed([] { q_print_txt_indent(-4, "ab", 7); }), "[       ab]");
}

TEST(Cells, numbers_are_blank_when_0) {
    EXPECT_EQ(printed([] { q_print_num(4, 0); }), "[    ]");
    EXPECT_EQ(printed([] { q_print_num(4, -12); }), "[ -12]");
    EXPECT_EQ(printed([] { q_print_num(2, 9223372036854775807); }), "[9223372036854775807]");
    EXPECT_EQ(printed([] { q_print_num2(4, 7, -5, 12); }), "[   7/12  ]");
    EXPECT_EQ(printed([] { q_print_num2(4, 0, 5, 12); }), "[      /12]");
    EXPECT_EQ(printed([] { q_print_num2(4, 7, 5, 0); }), "[   7     ]");
}

TEST(Cells, elapsed_time_changes_its_form_after_a_day) {
    set_clock(kNow);
    EXPECT_EQ(elapsed(86399), "23:59:59");
    EXPECT_EQ(elapsed(86400), "01-00:00");
    EXPECT_EQ(elapsed(90000), "01-01:00");
    EXPECT_EQ(elapsed(kNow), "");
    EXPECT_EQ(elapsed(-5), "00:00:-5"); // a clock that was set back
    EXPECT_EQ(printed([] { q_print_elapsed(0); }), "[        ]");
    EXPECT_EQ(printed([] { q_print_elapsed(kNow - 61); }), "[00:01:01]");
}
