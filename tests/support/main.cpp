#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char **argv) {
    // A shell's background and nohup leave some ignored, and programs under test would keep that.
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) std::signal(number, SIG_DFL);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
