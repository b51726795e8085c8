#include "tools/mon/screen/text.h"

namespace halvo::mon {

namespace {

constexpr char kEscape = '\x1b';
constexpr char kEraseLine[] = "[2K"; // the printers' own; the screen is erased elsewhere

// Length of the attribute sequence (ESC [ digits and semicolons m) at a place; 0 when there is none.
size_t attribute_at(const std::string &text, size_t at) {
    if (text[at] != kEscape || at + 1 >= text.size() || text[at + 1] != '[') return 0;
    const size_t end = text.find_first_not_of("0123456789;", at + 2);
    return end != std::string::npos && text[end] == 'm' ? end + 1 - at : 0;
}

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    // 0x80 .. 0xA0 are no part of an EUC-KR character, and controls for some terminals.
    return byte < 0x20 || byte == 0x7f || (byte >= 0x80 && byte <= 0xA0) || byte == 0xFF;
}

bool is_lead_byte(char c) { return static_cast<unsigned char>(c) > 0xA0; }

} // namespace

std::string for_terminal(const std::string &euc_kr, bool colours) {
    std::string text;
    for (size_t at = 0; at < euc_kr.size();) {
        const size_t attribute = attribute_at(euc_kr, at);
        if (attribute > 0) {
            if (colours) text.append(euc_kr, at, attribute);
            at += attribute;
        } else if (euc_kr[at] == kEscape) {
            const bool erase = euc_kr.compare(at + 1, sizeof kEraseLine - 1, kEraseLine) == 0;
            at += erase ? sizeof kEraseLine : 1;
        } else {
            const char c = euc_kr[at++];
            text += is_control(c) && c != '\n' && c != '\t' ? '?' : c;
        }
    }
    return text;
}

std::string clipped(const std::string &euc_kr, size_t columns) {
    std::string line;
    for (size_t at = 0, column = 0; at < euc_kr.size();) {
        const size_t attribute = attribute_at(euc_kr, at);
        const size_t bytes = attribute > 0 ? attribute : is_lead_byte(euc_kr[at]) ? 2 : 1;
        if (attribute == 0) column += bytes;
        if (attribute > 0 || column <= columns) line.append(euc_kr, at, bytes);
        at += bytes;
    }
    return line;
}

} // namespace halvo::mon
