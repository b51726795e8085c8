#include "tests/fuzz/scratch.h"

#include <unistd.h>

#include <cstdlib>

#include "tests/support/files.h"

namespace halvo::fuzz {

namespace {

struct Scratch {
    std::string path;
    Scratch() {
        if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
        path = test::make_test_directory();
    }
    ~Scratch() { test::remove_tree(path); }
};

} // namespace

const std::string &scratch_directory() {
    static const Scratch scratch;
    return scratch.path;
}

std::string scratch_file(const std::string &name) { return scratch_directory() + "/" + name; }

void write_scratch(const std::string &path, const std::string &content) {
    test::write_file(path, content);
}

} // namespace halvo::fuzz
