// sms_shm: the names of the result codes, for people.
#include <cerrno>
#include <cstdio>

#include "core/base/posix.h"
#include "halvo/result.h"

namespace {

struct NamedCode {
    int code;
    const char *line;
};

// The codes, and the errno values that the System V calls report.
// clang-format off
constexpr NamedCode kNamedCodes[] = {
#define HALVO_NAMED_CODE(name, value, meaning) {name, " " #name},
    HALVO_RESULT_CODES(HALVO_NAMED_CODE)
#undef HALVO_NAMED_CODE
    {EPERM, " EPERM"},
    {EINTR, " EINTR"},
    {E2BIG, " E2BIG"},
    {EAGAIN, " EAGAIN"},
    {EACCES, " EACCES"},
    {EFAULT, " EFAULT"},
    {EINVAL, " EINVAL"},
    {ENOMSG, " ENOMSG"},
    {EIDRM, " EIDRM"},
};
// clang-format on
static_assert(sizeof kNamedCodes / sizeof kNamedCodes[0] == 18 + 9);

int print_code(const char *prefix, int code) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::printf(prefix); // Kept: the prefix is the format itself; callers pass plain text.
#pragma GCC diagnostic pop
    for (const NamedCode &named : kNamedCodes)
        if (named.code == code) return std::puts(named.line);
    return std::printf(" Unknown err %d\n", code);
}

} // namespace

int printr(const char *prefix, int code) noexcept {
    const halvo::CancellationOff whole; // as halvo::print()
    return print_code(prefix, code);
}
