// What all stress tests share: a short and a long form, seeds that come back, and figures.
//
//     HALVO_STRESS=long   the long form, as `make stress` runs it; otherwise the short one
//     HALVO_SEED=number   repeats the run that printed this seed
//
// Each figure is one line of four fields, which dev/stress.sh collects and judges:
//     figure | what | asked for | measured
// Asked for can be "-" (nothing), "at least N", "at most N", "below N"; anything else is the very
// text that is to be measured, and expected here too.
#pragma once

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstring>
#include <random>
#include <string>

namespace halvo::test {

inline bool is_long_form() {
    const char *form = std::getenv("HALVO_STRESS");
    return form && std::strcmp(form, "long") == 0;
}

inline int length(int short_form, int long_form) { return is_long_form() ? long_form : short_form; }

inline uint32_t seed() {
    const char *given = std::getenv("HALVO_SEED");
    const uint32_t number =
        given ? static_cast<uint32_t>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::printf("HALVO_SEED=%" PRIu32 "\n", number);
    return number;
}

inline void figure(const std::string &what, const std::string &asked, const std::string &measured) {
    std::printf("figure | %s | %s | %s\n", what.c_str(), asked.c_str(), measured.c_str());
    std::fflush(stdout);
    if (asked != "-" && !std::isalpha(asked[0])) {
        EXPECT_EQ(measured, asked) << what;
    }
}
inline void figure(const std::string &what, const std::string &asked, int64_t measured) {
    figure(what, asked, std::to_string(measured));
}

} // namespace halvo::test
