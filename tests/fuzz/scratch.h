// A directory in memory for the files of a target, removed when the process ends.
#pragma once

#include <string>

namespace halvo::fuzz {

const std::string &scratch_directory();
std::string scratch_file(const std::string &name);                       // its path
void write_scratch(const std::string &path, const std::string &content); // replaces the file

} // namespace halvo::fuzz
