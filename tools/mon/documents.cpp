#include "tools/mon/documents.h"

#include <cstring>
#include <vector>

#include "tools/frame/text.h"

namespace halvo::mon {

namespace {

std::string xml_text(const std::string &text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '"':
            out += "&quot;";
            break;
        default:
            out += byte < 0x20 || byte == 0x7f ? '?' : c;
        }
    }
    return out;
}

std::string json_text(const std::string &text) { return tools::json_escaped(text, false); }

// How a channel's record begins: name, number and type, with these texts before, between, behind.
struct Form {
    const char *before, *number, *type, *behind;
    std::string (*escaped)(const std::string &);
};
constexpr Form kXml{"<q name=\"", "\" id=\"", "\" type=\"", "\">", xml_text};
constexpr Form kJson{"{ \"name\":\"", "\",\"id\":", ", \"type\":\"", "\",", json_text};

struct Head {
    std::string raw, escaped;
};

std::string head(const Form &form, const std::string &name, int number, const std::string &type) {
    return form.before + name + form.number + std::to_string(number) + form.type + type +
           form.behind;
}

std::vector<Head> heads_of_channels(const Form &form, const qm::SegmentView &view) {
    std::vector<Head> heads;
    for (int i = 0; i < static_cast<int>(view.channels()); ++i) {
        const halvo_channel *q = view.channel(static_cast<uint32_t>(i));
        if (!q) continue;
        const std::string name(q->qname, strnlen(q->qname, sizeof q->qname));
        // A type that is NUL ends what the library writes; nothing can be put in place then.
        const std::string type(1, q->qtype);
        heads.push_back(
            {head(form, name, i, type), head(form, form.escaped(name), i, form.escaped(type))});
    }
    return heads;
}

// A name may hold whatever stands between records, so heads are looked for only where one begins:
// at the first record, and behind each record's figures, which hold no text of others.
std::string escaped(const std::string &document, const Form &form, const char *record_end,
                    const qm::SegmentView &view) {
    const std::vector<Head> heads = heads_of_channels(form, view);
    std::string out;
    size_t at = document.find(form.before);
    if (at == std::string::npos) return document;
    out.append(document, 0, at);
    while (at < document.size()) {
        for (const Head &candidate : heads) {
            if (document.compare(at, candidate.raw.size(), candidate.raw) != 0) continue;
            out += candidate.escaped;
            at += candidate.raw.size();
            break;
        }
        const size_t end = document.find(record_end, at);
        const size_t next =
            end == std::string::npos ? document.size() : end + std::strlen(record_end);
        out.append(document, at, next - at);
        at = next;
    }
    return out;
}

} // namespace

std::string escaped_xml(const std::string &document, const qm::SegmentView &view) {
    return escaped(document, kXml, "</q>\n", view);
}
std::string escaped_json(const std::string &document, const qm::SegmentView &view) {
    return escaped(document, kJson, "},\n", view);
}

} // namespace halvo::mon
