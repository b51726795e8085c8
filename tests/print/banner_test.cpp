#include <cstdlib>

#include "tests/print/scenario.h"

using namespace halvo::test;

namespace {

const std::string kRule(139, '=');

class Banner : public Status {
protected:
    // The banner's line, which stands between two rules.
    static std::string title(char mode = 'f') {
        const std::vector<std::string> all = lines(captured_stdout([=] { q_printlogo2(mode); }));
        EXPECT_EQ(all.size(), 3u);
        EXPECT_EQ(all.front(), kRule);
        EXPECT_EQ(all.back().substr(all.back().size() - 139), kRule);
        return all[1] + all.back().substr(0, all.back().size() - 139);
    }
};

} // namespace

TEST_F(Banner, without_a_snapshot) {
    const std::string plain =
        "☆    HALVO Queue Monitor Release1.02 Uptime: 3days 현재:2023.11.16 02:00:00 ";
    EXPECT_EQ(title('w'), plain);
    EXPECT_EQ(title('f'), plain + "\x1b[0m");
    halvo_print_option colours{HALVO_OPTION_SPECIAL, 0, -1, 36};
    qoptTitle = &colours;
    EXPECT_EQ(title('w'), "\x1b[36m" + plain);
    take_snapshot(0); // never taken
    EXPECT_EQ(title('w'), "\x1b[36m" + plain);
    qoptTitle = nullptr;
}

TEST_F(Banner, with_a_snapshot) {
    take_snapshot(kNow - 119);
    halvo_print_option colours{HALVO_OPTION_SPECIAL, 0, 1, 36};
    qoptTitle = &colours;
    const std::string text =
        "   HALVO Queue Monitor Release1.02 Uptime: 3days  현재:2023.11.16 02:00:00  경과 1분.";
    EXPECT_EQ(title('w'), "☆ " + text);
    EXPECT_EQ(title('f'), "☆ \x1b[0m\x1b[1m\x1b[36m" + text + "\x1b[0m");
    qoptTitle = nullptr;
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

TEST_F(Banner, begins_the_up_time_of_a_fresh_segment) {
    q_0()->uptime = 0;
    EXPECT_NE(title().find("Uptime: 0days"), std::string::npos);
    EXPECT_EQ(q_0()->uptime, kNow);
}
