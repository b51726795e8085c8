// A directory under $TMPDIR that goes with the program, however that ends.
#pragma once

#include <string>

#include "tools/fixture/directory.h"

namespace halvo::bench {

class Workplace {
public:
    Workplace() : path_(test::make_test_directory()), alive_(test::start_janitor(path_, {})) {}
    Workplace(const Workplace &) = delete;
    Workplace &operator=(const Workplace &) = delete;
    ~Workplace() { test::remove_tree(path_); }
    const std::string &path() const { return path_; }

private:
    std::string path_;
    Descriptor alive_; // the janitor removes what is left when nobody has it
};

} // namespace halvo::bench
