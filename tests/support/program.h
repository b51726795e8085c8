// Running a program of ours, or any other, to its end.
//
//     const Outcome outcome = run_program({HALVO_QM, "check", "--key", s.key_file()});
//     EXPECT_EQ(outcome.status, 0) << outcome.err;
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/peer.h"

namespace halvo::test {

struct Outcome {
    int status; // exit status, 128 + signal, or 127 when the program could not be started
    std::string out;
    std::string err;
};

// The process becomes the program argv[0], a path. Returns 127 when that cannot be started.
inline int become(const std::vector<std::string> &argv) {
    std::vector<char *> words;
    for (const std::string &word : argv) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    execv(words[0], words.data());
    return 127;
}

// Runs argv[0] with the given standard input.
inline Outcome run_program(const std::vector<std::string> &argv, const std::string &input = {}) {
    const ScratchFile in;
    const ScratchFile out;
    const ScratchFile err;
    in.fill(input);
    Peer program([&] {
        dup2(in.fd(), STDIN_FILENO);
        dup2(out.fd(), STDOUT_FILENO);
        dup2(err.fd(), STDERR_FILENO);
        return become(argv);
    });
    const int status = program.wait();
    return {status, out.content(), err.content()};
}

// Expects an exit status, and a text in what was printed to either stream.
inline void expect_end(const Outcome &outcome, int status, const std::string &told = {}) {
    EXPECT_EQ(outcome.status, status) << outcome.out << outcome.err;
    EXPECT_NE((outcome.out + outcome.err).find(told), std::string::npos)
        << "not told: " << told << '\n'
        << outcome.out << outcome.err;
}

} // namespace halvo::test
