// Running a VM of the library's width with the classes of the tests.
#pragma once

#include <cstdlib>

#include "tests/support/program.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {

using Words = std::vector<std::string>;

// The VM's standard error is added to its output.
inline Outcome run_vm(const Segment &s, const Words &options, const Words &command) {
    unsetenv("LD_LIBRARY_PATH"); // the library must be found without
    for (const char *name : {"JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"})
        unsetenv(name);
    Words words{HALVO_JAVA,
                "-Xmx64m",
                "-XX:ErrorFile=/dev/stderr",
                "-cp",
                HALVO_CLASS_PATH,
                "-Dhalvo.test.natives=" HALVO_TEST_NATIVES,
                "-Dhalvo.test.key=" + s.key_file(),
                "-Dhalvo.test.dir=" + s.path("")};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), command.begin(), command.end());
    Outcome outcome = run_program(words);
    outcome.out += outcome.err;
    return outcome;
}

} // namespace halvo::test
