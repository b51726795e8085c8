#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/print/scenario.h"
#include "tools/mon/screen/text.h"

using namespace halvo::mon;
using halvo::test::utf8;

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
    EXPECT_EQ(to_utf8("a\xFF큐\xC5"), "a\xEF\xBF\xBD" + utf8("큐") + "\xEF\xBF\xBD");
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
