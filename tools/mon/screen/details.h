// halvo-mon: all that is known of one channel, as lines of text.
#pragma once

#include <string>
#include <vector>

#include "tools/mon/look/sample.h"

namespace halvo::mon {

// In UTF-8. With a view also the counts by type, the first messages that wait, those that were
// read last, and the clients; bytes that are no text are escaped. Messages may be overwritten while
// they are copied.
std::vector<std::string> details_of(const ChannelSample &channel, int64_t now,
                                    const qm::SegmentView *view);

// A message's bytes as one line: EUC-KR as UTF-8, control characters and other bytes as \n or \x1b.
std::string escaped_message(const std::string &bytes);

} // namespace halvo::mon
