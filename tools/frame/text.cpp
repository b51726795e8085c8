#include "tools/frame/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

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

std::string json_escaped(const std::string &bytes, bool ascii) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            out += {'\\', c};
        else if (byte < 0x20 || byte == 0x7f || (ascii && byte > 0x7f))
            out += text("\\u%04x", static_cast<unsigned>(byte));
        else
            out += c;
    }
    return out;
}

std::string local_time(int64_t seconds, const char *format) {
    const auto time = static_cast<time_t>(seconds);
    tm local{};
    localtime_r(&time, &local);
    char out[64];
    return {out, std::strftime(out, sizeof out, format, &local)};
}

std::string aligned(const std::vector<std::vector<std::string>> &rows) {
    constexpr size_t kBetween = 2; // columns
    std::vector<size_t> widths(rows.front().size());
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    std::string lines;
    for (const auto &row : rows) {
        for (size_t i = 0; i + 1 < row.size(); ++i)
            lines += row[i] + std::string(widths[i] - row[i].size() + kBetween, ' ');
        lines += row.back() + "\n";
    }
    return lines;
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
