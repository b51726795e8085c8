#include "tools/mon/screen/details.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "core/base/process.h"
#include "core/segment/ring.h"
#include "tools/frame/charset.h"
#include "tools/frame/text.h"
#include "tools/mon/screen/top_rows.h"

namespace halvo::mon {

using tools::text;

namespace {

constexpr int kMostMessages = 5;
constexpr uint32_t kMostBytes = 200; // of a message

unsigned long long number(uint64_t value) { return value; }

std::string time_text(int32_t stamp, int64_t now) {
    if (stamp == 0) return "never";
    return tools::local_time(stamp, "%Y-%m-%d %H:%M:%S") + ", " + short_age(now - stamp) + " ago";
}

// The name that the kernel has for a process.
std::string program_of(int32_t pid) {
    char name[32] = "";
    std::FILE *file = std::fopen(text("/proc/%d/comm", static_cast<int>(pid)).c_str(), "r");
    if (!file) return {};
    const size_t got = std::fread(name, 1, sizeof name - 1, file);
    std::fclose(file);
    return tools::printable(name, got > 0 ? got - 1 : 0);
}

std::string end_text(const char *what, const EndSample &end, int64_t now, bool live) {
    if (end.pid == 0 && end.stamp == 0) return std::string(what) + "nobody yet";
    std::string out = what + text("process %d", static_cast<int>(end.pid));
    if (const std::string program = live && end.alive ? program_of(end.pid) : ""; !program.empty())
        out += " (" + program + ")";
    if (!end.name.empty()) out += " as \"" + end.name + "\"";
    out += end.alive ? ", alive" : ", gone";
    if (end.held == Held::yes) out += ", holds the end";
    if (end.held == Held::no) out += ", the end is free";
    return out + "; last operation " + time_text(end.stamp, now);
}

void add_figures(std::vector<std::string> &lines, const ChannelSample &c, int64_t now, bool live) {
    lines.push_back(std::string("state     ") + word_of(c.trouble) + ": " + meaning_of(c.trouble));
    lines.push_back(text("ring      %u slots of %u bytes, %lld messages (%.0f%%), %d parked",
                         c.slots, c.slot_bytes, static_cast<long long>(c.ring_depth()),
                         c.fill() * 100, static_cast<int>(c.parked)));
    lines.push_back(text("rates     %.1f/s in, %.1f/s out; limit %s%s", c.in_rate, c.out_rate,
                         c.rate_limit > 0 ? std::to_string(c.rate_limit).c_str() : "none",
                         c.throttled ? ", throttled" : ""));
    lines.push_back(text("counts    %llu put, %llu got, %llu with an error", number(c.put),
                         number(c.got), number(c.errors)));
    lines.push_back(text("file      %lld messages; %llu put, %llu got",
                         static_cast<long long>(c.file_depth()), number(c.file_put),
                         number(c.file_got)));
    lines.push_back(text("waiting   %d writers, %d readers; oldest message for %s at least",
                         static_cast<int>(c.waiting_writers), static_cast<int>(c.waiting_readers),
                         c.depth() > 0 ? short_age(c.oldest).c_str() : "-"));
    lines.push_back("last put  " + time_text(c.last_in, now));
    lines.push_back("last got  " + time_text(c.last_out, now));
    lines.push_back("error     " + time_text(c.last_error, now));
    lines.push_back(end_text("writer    ", c.writer, now, live));
    lines.push_back(end_text("reader    ", c.reader, now, live));
    lines.push_back(end_text("f-writer  ", c.file_writer, now, live));
    lines.push_back(end_text("f-reader  ", c.file_reader, now, live));
}

void add_types(std::vector<std::string> &lines, const std::vector<TypeCount> &types) {
    if (types.empty()) return;
    lines.push_back("");
    lines.push_back("type  messages      errors  name");
    for (const TypeCount &type : types)
        lines.push_back(text("%4d  %8llu  %10llu  %s", type.type, number(type.count),
                             number(type.errors), type.name.c_str()));
}

std::string message_text(const halvo_channel *q, uint32_t slot_bytes, uint32_t offset) {
    const qmsg *slot = slot_at(q, offset);
    const auto room = static_cast<uint32_t>(slot_bytes - offsetof(qmsg, data));
    const uint32_t length = std::min({load(slot->len), room, kMostBytes});
    std::string bytes(length, '\0');
    std::memcpy(bytes.data(), body(slot), length);
    return text("  type %u, %u bytes: ", unsigned{slot->type}, load(slot->len)) +
           escaped_message(bytes) + (load(slot->len) > length ? " ..." : "");
}

void add_messages(std::vector<std::string> &lines, const ChannelSample &c, const halvo_channel *q,
                  uint32_t room) {
    const Ring ring = ring_of(q); // of this moment, whatever the sample saw
    if (!lies_within(ring, room)) return;
    const uint32_t first = position_in(ring, load(q->rpos));
    const int64_t slots = capacity(ring);
    const int64_t waiting = std::clamp<int64_t>(c.ring_depth(), 0, slots);
    if (waiting > 0) lines.insert(lines.end(), {"", "messages that wait, the next one first"});
    uint32_t offset = first;
    for (int i = 0; i < std::min<int64_t>(waiting, kMostMessages); ++i) {
        lines.push_back(message_text(q, ring.size, offset));
        offset = next_offset(ring, offset);
    }
    const int64_t read = std::min<int64_t>(
        {static_cast<int64_t>(std::min<uint64_t>(c.got, kMostMessages)), slots - waiting});
    if (read > 0) lines.insert(lines.end(), {"", "messages read last, the latest first"});
    offset = first;
    for (int i = 0; i < read; ++i) {
        const uint32_t behind =
            offset - ring.start < ring.size ? ring.start + capacity(ring) * ring.size : offset;
        offset = behind - ring.size;
        lines.push_back(message_text(q, ring.size, offset));
    }
}

void add_clients(std::vector<std::string> &lines, const halvo_channel *q, int64_t now) {
    bool none = true;
    const auto add = [&](const char *side, const halvo_client(&clients)[HALVO_CLIENTS]) {
        for (const halvo_client &client : clients) {
            if (load(client.pid) == 0) continue;
            if (std::exchange(none, false)) lines.insert(lines.end(), {"", "clients"});
            lines.push_back(text("  %s process %d%s, seen ", side,
                                 static_cast<int>(load(client.pid)),
                                 is_alive(load(client.pid)) ? "" : " (gone)") +
                            time_text(load(client.time), now));
        }
    };
    add("writer's", q->pclients);
    add("reader's", q->gclients);
}

} // namespace

std::string escaped_message(const std::string &bytes) {
    std::string plain;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n')
            plain += "\\n";
        else if (c == '\\')
            plain += "\\\\";
        else if (byte < 0x20 || byte == 0x7f || byte == 0xff || (byte >= 0x80 && byte <= 0xA0))
            plain += text("\\x%02x", unsigned{byte});
        else
            plain += c;
    }
    return tools::to_utf8(plain);
}

std::vector<std::string> details_of(const ChannelSample &channel, int64_t now,
                                    const qm::SegmentView *view) {
    std::vector<std::string> lines{
        text("channel %d  %s  type %c", channel.number, channel.name.c_str(), channel.type), ""};
    if (!channel.damage.empty()) {
        lines.push_back("damaged: " + channel.damage);
        return lines;
    }
    add_figures(lines, channel, now, view != nullptr);
    const halvo_channel *q = view ? view->channel(static_cast<uint32_t>(channel.number)) : nullptr;
    if (!q) return lines;
    add_types(lines, types_of(*view, channel.number));
    add_messages(lines, channel, q, view->room_behind(q));
    add_clients(lines, q, now);
    return lines;
}

} // namespace halvo::mon
