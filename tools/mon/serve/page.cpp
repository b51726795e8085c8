// halvo-mon: the page that is compiled in.
#include <string_view>

#include "tools/mon/serve/serve.h"

namespace halvo::mon {

namespace {

constexpr unsigned char kPage[] = {
#include "tools/mon/serve/page.inc"
};
constexpr std::string_view kMark = "@NONCE@";

} // namespace

std::string page(const std::string &nonce) {
    std::string text(kPage, kPage + sizeof kPage);
    for (size_t at = 0; (at = text.find(kMark, at)) != std::string::npos; at += nonce.size())
        text.replace(at, kMark.size(), nonce);
    return text;
}

} // namespace halvo::mon
