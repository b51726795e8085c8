#include "tools/frame/charset.h"

#include <iconv.h>
#include <string.h> // strcasestr

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace halvo::tools {

namespace {

class Converter {
public:
    Converter(const char *to, const char *from) : handle_(iconv_open(to, from)) {
        const auto failed = reinterpret_cast<iconv_t>(-1); // NOLINT(performance-no-int-to-ptr)
        if (handle_ == failed)
            throw std::runtime_error("iconv does not know EUC-KR here; --no-utf8 does without");
    }
    ~Converter() { iconv_close(handle_); }
    Converter(const Converter &) = delete;
    Converter &operator=(const Converter &) = delete;

    // Converts what can be; returns the number of bytes that could.
    size_t convert(const char *from, size_t size, std::string &to) {
        char *in = const_cast<char *>(from);
        while (size > 0) {
            char block[4096];
            char *out = block;
            size_t room = sizeof block;
            const size_t result = iconv(handle_, &in, &size, &out, &room);
            to.append(block, out);
            if (result == static_cast<size_t>(-1) && errno != E2BIG) break;
        }
        return static_cast<size_t>(in - from);
    }

private:
    iconv_t handle_;
};

bool is_ascii(const std::string &text) {
    for (const char c : text)
        if (static_cast<unsigned char>(c) >= 0x80) return false;
    return true;
}

} // namespace

bool locale_is_utf8() {
    for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char *value = std::getenv(name);
        if (value && *value) return strcasestr(value, "UTF-8") || strcasestr(value, "UTF8");
    }
    return false;
}

std::string to_utf8(const std::string &euc_kr) {
    if (is_ascii(euc_kr)) return euc_kr;
    Converter converter("UTF-8", "EUC-KR");
    std::string text;
    for (size_t at = 0; at < euc_kr.size();) {
        at += converter.convert(euc_kr.data() + at, euc_kr.size() - at, text);
        if (at == euc_kr.size()) break;
        text += "\xEF\xBF\xBD"; // U+FFFD
        ++at;
    }
    return text;
}

std::optional<std::string> to_euc_kr(const std::string &utf8) {
    if (is_ascii(utf8)) return utf8;
    Converter converter("EUC-KR", "UTF-8");
    std::string text;
    if (converter.convert(utf8.data(), utf8.size(), text) != utf8.size()) return std::nullopt;
    return text;
}

std::string for_locale(const std::string &euc_kr) {
    return locale_is_utf8() ? to_utf8(euc_kr) : euc_kr;
}

std::string typed(const std::string &word) {
    return locale_is_utf8() ? to_euc_kr(word).value_or(word) : word;
}

} // namespace halvo::tools
