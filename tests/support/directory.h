// A directory of its own for one test, with a janitor that removes it.
//
//     const std::string where = make_test_directory();
//     const Descriptor alive = start_janitor(where, {});
//
// A janitor outlives a test that is killed. It acts when every process has closed the returned
// descriptor, so it waits for the forked children of the test too.
#pragma once

#include <string>

#include "core/posix.h"

namespace halvo::test {

std::string make_test_directory(); // under $TMPDIR or /tmp; throws std::system_error

// Removes a directory with everything in it; links are removed, not followed.
void remove_tree(const std::string &directory);

// Starts the janitor of a directory and of the segment of a key file (none when empty). Returns the
// descriptor, which closes on exec. Throws std::system_error.
Descriptor start_janitor(const std::string &directory, const std::string &key_file);

// Tells the janitor to leave the segment alone and remove the directory only.
void spare_segment(const Descriptor &alive);

} // namespace halvo::test
