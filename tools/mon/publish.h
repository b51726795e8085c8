// halvo-mon: the commands that give the figures to other programs, as a file or served.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

namespace halvo::mon {

using Work = std::function<void(int)>; // takes the descriptor of the output

// Adds "prometheus" and "serve". `key_file` is read when the work is done.
void add_publishing(CLI::App &app, const std::string &key_file, Work &work);

} // namespace halvo::mon
