// Running a VM of the library's width with the classes of the tests.
#pragma once

#include <cstdlib>
#include <filesystem>

#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tools/fixture/segment_builder.h"

namespace halvo::test {

using Words = std::vector<std::string>;

inline const std::string kLibrary = "-Dhalvoipc.library=" HALVO_LIBRARY;

// The program of a VM under /usr/lib/jvm, or nothing.
inline std::string find_java(int version, int width) {
    const std::string wanted[] = {"JAVA_VERSION=\"" + std::to_string(version) + ".",
                                  width == 32 ? "OS_ARCH=\"x86\"" : "OS_ARCH=\"x86_64\""};
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/usr/lib/jvm", none)) {
        const std::string java = entry.path() / "bin/java";
        if (!exists(java) || !exists(entry.path() / "release")) continue;
        const std::string release = content_of(entry.path() / "release");
        if (release.find(wanted[0]) != release.npos && release.find(wanted[1]) != release.npos)
            return java;
    }
    return {};
}

// The library of a word size: this build tree's, or that of the tree beside it; empty if not there.
inline std::string find_library(int width) {
    if (width == static_cast<int>(8 * sizeof(void *))) return HALVO_LIBRARY;
    const std::string other = std::string(HALVO_SOURCE "/build/") +
                              (width == 32 ? "i386" : "x86_64") + "/lib/libhalvoipc.so";
    return exists(other) ? other : std::string();
}

// The words that start a VM with the classes of the tests.
inline Words vm_words(const Segment &s, const Words &options, const Words &command,
                      const std::string &java = HALVO_JAVA) {
    for (const char *name :
         {"LD_LIBRARY_PATH", "JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS"})
        unsetenv(name); // the library must be found without
    Words words{java,
                "-Xmx64m",
                "-XX:ErrorFile=/dev/stderr",
                "-cp",
                HALVO_CLASS_PATH,
                "-Dhalvo.test.natives=" HALVO_TEST_NATIVES,
                "-Dhalvo.test.key=" + s.key_file(),
                "-Dhalvo.test.dir=" + s.path(""),
                "-Dhalvo.test.include=" HALVO_SOURCE "/include/halvo"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

// The VM's standard error is added to its output.
inline Outcome run_vm(const Segment &s, const Words &options, const Words &command,
                      const std::string &java = HALVO_JAVA) {
    Outcome outcome = run_program(vm_words(s, options, command, java));
    outcome.out += outcome.err;
    return outcome;
}

} // namespace halvo::test
