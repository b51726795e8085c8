// Files and directories of a test.
#pragma once

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "tools/fixture/directory.h"

namespace halvo::test {

inline std::string content_of(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream bytes; // a library has tens of millions
    bytes << in.rdbuf();
    return bytes.str();
}

inline void write_file(const std::string &path, const std::string &content) {
    if (!(std::ofstream(path, std::ios::binary) << content))
        throw std::runtime_error("cannot write " + path);
}

inline bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

inline int open_descriptors() {
    int count = 0;
    for (Directory own("/proc/self/fd"); own.next();) ++count;
    return count;
}

// A directory of its own, with a path for a key file in it. Both go with the object, the segment of
// that key file too if the test is killed.
class TestDirectory {
public:
    TestDirectory() = default;
    TestDirectory(const TestDirectory &) = delete;
    TestDirectory &operator=(const TestDirectory &) = delete;
    ~TestDirectory() { remove_tree(path_); }

    const std::string &path() const { return path_; }
    std::string path(const std::string &name) const { return path_ + "/" + name; }

private:
    const std::string path_ = make_test_directory();
    const Descriptor janitor_ = start_janitor(path_, path_ + "/key");
};

} // namespace halvo::test
