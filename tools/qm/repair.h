// halvo-qm check --repair: puts right what processes left that died in the middle of an operation.
#pragma once

#include <string>
#include <vector>

namespace halvo::qm {

// Opens every end whose last holder is dead, corrects it and gives it back; such a holder's process
// id becomes this process's. Ends in use are left alone. Returns what was done, a line for each
// correction. Throws Error when the library cannot use the segment. Uses the library, which prints
// on standard output, as programs do: what check() finds wrong with sizes and offsets it does not touch.
std::vector<std::string> repair(const std::string &key_file);

} // namespace halvo::qm
