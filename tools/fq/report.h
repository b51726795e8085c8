// What halvo-fq tells of a queue.
#pragma once

#include <string>

namespace halvo::tools {

// Both return the text to print, as lines or as one JSON document.
std::string stat_report(const std::string &path, bool json);

// sound: whether no committed item and no saved position is damaged.
std::string verify_report(const std::string &path, bool json, bool &sound);

// Why the reader cannot go on: what stands at its position although the writer has gone on. Empty
// when nothing does.
std::string obstacle(const std::string &path);

} // namespace halvo::tools
