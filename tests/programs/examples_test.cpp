// The examples that the README shows are those that are compiled here, and they work.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/support/program.h"
#include "tests/support/segment_builder.h"

using namespace halvo::test;

namespace {

std::string content(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace

TEST(Examples, in_c_and_cpp_pass_a_message) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 256).build();
    for (const char *name : {"/hello_c", "/hello_cpp", "/in_place_c", "/in_place_cpp"}) {
        const Outcome outcome = run_program({std::string(HALVO_BIN) + name, s.key_file()});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_NE(outcome.out.find("\nhello, world\n"), std::string::npos) << outcome.out;
    }
}

TEST(HostProgram, may_use_the_librarys_names_for_things_of_its_own) {
    const Segment s = SegmentBuilder().channel("MT01", 'M', 4, 256).build();
    const Outcome outcome = run_program({HALVO_BIN "/own_names", s.key_file()});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
}

TEST(Examples, say_why_they_cannot) {
    const Outcome outcome = run_program({std::string(HALVO_BIN) + "/hello_c", "/nonexistent"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find("shmat failed keyfile /nonexistent"), std::string::npos);
}

TEST(Examples, stand_in_the_readme_as_they_are_compiled) {
    const std::string readme = content(HALVO_README);
    const auto shown = [&](const char *language, const char *file) {
        const std::string example = content(std::string(HALVO_EXAMPLES) + file);
        const std::string block = std::string("```") + language + "\n" + example + "```\n";
        return !example.empty() && readme.find(block) != std::string::npos;
    };
    EXPECT_TRUE(shown("c", "/hello.c"));
    EXPECT_TRUE(shown("java", "/Hello.java"));
}
