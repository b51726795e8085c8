// The subcommands of halvo-relay. Each returns the program's exit status.
#pragma once

#include <string>

namespace halvo::relay {

int run(const std::string &config_path);
int check(const std::string &config_path, bool declare);
int show_status(const std::string &config_path, bool as_metrics);

// Attaches to the segment of a key file; throws ConfigError. Before it, no thread may be there that
// takes the signals of the program.
void attach(const std::string &key_file);

} // namespace halvo::relay
