#include "tools/frame/text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace halvo::tools {

namespace {

[[gnu::format(printf, 1, 0)]] std::string formatted(const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    std::string out(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(out.data(), out.size() + 1, format, again);
    va_end(again);
    return out;
}

} // namespace

std::string text(const char *format, ...) {
    va_list args;
    va_start(args, format);
    std::string out = formatted(format, args);
    va_end(args);
    return out;
}

std::string system_text(const char *format, ...) {
    const int reason = errno;
    va_list args;
    va_start(args, format);
    std::string out = formatted(format, args);
    va_end(args);
    return out + ": " + std::strerror(reason);
}

std::string printable(const char *field, size_t size) {
    std::string out(field, strnlen(field, size));
    for (char &c : out) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) c = '?';
    }
    return out;
}

} // namespace halvo::tools
