// halvo-mon: a terminal that shows one frame after the other in place.
#pragma once

#include <functional>
#include <string>

namespace halvo::mon {

// Calls frame() at once and then every `seconds`, and shows what it returns (EUC-KR text), until the
// operator types q or a signal asks to stop (Ctrl-C, SIGTERM, SIGHUP). On a terminal the frames take
// the whole of the alternate screen, cut to its size, and the terminal is left as it was found; Ctrl-Z
// works. Elsewhere the frames follow one another. Throws ToolError when the output fails.
struct Watch {
    int output; // descriptor
    double seconds;
    bool utf8;
    bool redraw; // false appends, also on a terminal
    std::function<std::string()> frame;
};
void watch(const Watch &watch);

} // namespace halvo::mon
