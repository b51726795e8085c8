// What halvo-fq tells of a queue.
#pragma once

#include <string>

namespace halvo::tools {

// Both return the text to print, as lines or as one JSON document.
std::string stat_report(const std::string &path, bool json);

// sound: whether no committed item is damaged.
std::string verify_report(const std::string &path, bool json, bool &sound);

} // namespace halvo::tools
