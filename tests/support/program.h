// Running a program of ours, or any other, to its end.
//
//     const Outcome outcome = run_program({HALVO_QM, "check", "--key", s.key_file()});
//     EXPECT_EQ(outcome.status, 0) << outcome.err;
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <memory>
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

// Makes the process another program, argv[0], with its standard input, output and error at these
// descriptors. Returns only when that fails.
inline int become(const std::vector<std::string> &argv, int in, int out, int err) {
    std::vector<char *> words;
    for (const std::string &word : argv) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(words[0], words.data());
    return 127;
}

// Runs argv[0], a path, with the given standard input.
inline Outcome run_program(const std::vector<std::string> &argv, const std::string &input = {}) {
    const ScratchFile in;
    const ScratchFile out;
    const ScratchFile err;
    in.fill(input);
    Peer program([&] { return become(argv, in.fd(), out.fd(), err.fd()); });
    const int status = program.wait();
    return {status, out.content(), err.content()};
}

// Starts a program that appends what it prints to a file.
inline std::unique_ptr<Peer> start_program(const std::vector<std::string> &argv,
                                           const std::string &log) {
    return std::make_unique<Peer>([&] {
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        return become(argv, STDIN_FILENO, out, out);
    });
}

// Expects an exit status, and a text in what was printed to either stream.
inline void expect_end(const Outcome &outcome, int status, const std::string &told = {}) {
    EXPECT_EQ(outcome.status, status) << outcome.out << outcome.err;
    EXPECT_NE((outcome.out + outcome.err).find(told), std::string::npos)
        << "not told: " << told << '\n'
        << outcome.out << outcome.err;
}

} // namespace halvo::test
