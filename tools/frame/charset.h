// Character sets: names and message texts are EUC-KR in the segment; terminals, configuration files
// and other programs mostly take UTF-8.
#pragma once

#include <optional>
#include <string>

namespace halvo::tools {

// Whether the locale of the environment (LC_ALL, LC_CTYPE, LANG, the first that is set) is UTF-8.
bool locale_is_utf8();

// Bytes that are no EUC-KR become U+FFFD.
std::string to_utf8(const std::string &euc_kr);
// Nothing when it is no UTF-8, or has a character that EUC-KR lacks.
std::optional<std::string> to_euc_kr(const std::string &utf8);

// From EUC-KR to what the operator's locale shows.
std::string for_locale(const std::string &euc_kr);
// A word that the operator typed, as it stands in a segment: converted from UTF-8 where the locale is
// UTF-8, and left as it is where that cannot be.
std::string typed(const std::string &word);

} // namespace halvo::tools
