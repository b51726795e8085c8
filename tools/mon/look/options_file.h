// halvo-mon: the options file, which chooses, orders, indents and colours channels.
#pragma once

#include <string>

namespace halvo::mon {

// Has the printers load it. Names in UTF-8 are converted, since the segment's are EUC-KR. Lines whose
// channel is not there are named on standard error, when `tell` is set. Throws ToolError when it
// cannot be read.
void load_options(const std::string &path, bool tell);

} // namespace halvo::mon
