// Messages that tell their number and whether they are whole.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "halvo/segment.h"

namespace halvo::test {

// Message number n, 0 or more, of 8 to `most` bytes: its length and every byte follow from n.
inline std::string numbered_message(int n, size_t most) {
    std::minstd_rand random(static_cast<unsigned>(n) + 1);
    std::string text(8 + random() % (most - 8 + 1), '\0');
    for (char &c : text) c = static_cast<char>(random());
    char number[16];
    std::snprintf(number, sizeof number, "%08d", n);
    return text.replace(0, 8, number, 8);
}

constexpr int kTorn = -1; // not one of ours, byte for byte

// Of a slot's image; `most` is what the slot has room for.
inline int number_in(const void *image, size_t most) {
    qmsg header{};
    std::memcpy(&header, image, sizeof header);
    if (header.len > most) return kTorn;
    const std::string body(static_cast<const char *>(image) + offsetof(qmsg, data), header.len);
    const int n = std::atoi(body.substr(0, 8).c_str());
    return body == numbered_message(n, most) ? n : kTorn;
}

} // namespace halvo::test
