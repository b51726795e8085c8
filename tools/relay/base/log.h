// One line an event on standard error: text, or JSON. Never a message's body.
#pragma once

#include <string>

namespace halvo::relay {

enum class Level { info, warning, error };

void log_as_json(bool json);
// route: empty for the relay as a whole. event: one word. text: what an operator wants to know.
void log(Level level, const std::string &route, const char *event, const std::string &text);

// Takes the lines that the library prints on standard output into the log, to the process's end.
void log_library_lines();

} // namespace halvo::relay
