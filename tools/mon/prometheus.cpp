#include "tools/mon/prometheus.h"

#include <cstring>

#include "print/figures.h"
#include "tools/mon/text.h"

namespace halvo::mon {

namespace {

std::string escaped(const std::string &utf8) {
    std::string out;
    for (const char c : utf8) {
        if (c == '\n')
            out += "\\n";
        else if (c == '\\' || c == '"')
            out += std::string("\\") + c;
        else
            out += c;
    }
    return out;
}

std::string name_of(const char (&field)[HALVO_NAME_SIZE]) {
    return escaped(to_utf8(std::string(field, strnlen(field, sizeof field))));
}

std::string labels_of(const Image &image, int number) {
    const halvo_channel &q = image.channel(number);
    return "channel=\"" + name_of(q.qname) + "\",number=\"" + std::to_string(number) +
           "\",type=\"" + escaped(to_utf8(std::string(1, q.qtype))) + "\"";
}

class Exposition {
public:
    void family(const char *name, const char *type, const char *help) {
        name_ = std::string("halvo_") + name;
        text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
    }
    template <class Number>
    void sample(const std::string &labels, Number value) {
        text_ +=
            name_ + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(value) + "\n";
    }
    const std::string &text() const { return text_; }

private:
    std::string name_;
    std::string text_;
};

struct CounterFamily {
    const char *name, *help;
    uint64_t (*value)(const halvo_channel &);
};
constexpr CounterFamily kCounters[] = {
    {"ring_put_total", "Messages that became readable in the ring.",
     [](const halvo_channel &q) -> uint64_t { return q.pcnt.count; }},
    {"ring_got_total", "Messages consumed from the ring.",
     [](const halvo_channel &q) -> uint64_t { return q.gcnt.count; }},
    {"errors_total", "Messages consumed with an error.",
     [](const halvo_channel &q) -> uint64_t { return q.gcnt.ecount; }},
    {"file_put_total", "Messages put into the file queue.",
     [](const halvo_channel &q) -> uint64_t { return q.fpcnt.count; }},
    {"file_got_total", "Messages taken from the file queue.",
     [](const halvo_channel &q) -> uint64_t { return q.fgcnt.count; }},
    {"done_total", "Messages processed, by the ring for type M, else by the file queue.",
     [](const halvo_channel &q) -> uint64_t {
         return shows_ring(q) ? q.gcnt.count : q.fgcnt.count;
     }},
};

struct GaugeFamily {
    const char *name, *help;
    int64_t (*value)(const halvo_channel &);
};
constexpr GaugeFamily kGauges[] = {
    {"backlog", "Messages waiting in ring and file queue.",
     [](const halvo_channel &q) { return ring_backlog(q) + file_backlog(q); }},
    {"ring_backlog", "Messages waiting in the ring.",
     [](const halvo_channel &q) { return ring_backlog(q); }},
    {"parked", "Messages in write buffers.",
     [](const halvo_channel &q) { return int64_t{q.pbuffs}; }},
    {"slots", "Slots of the ring.", [](const halvo_channel &q) { return int64_t{q.qcnt}; }},
    {"slot_bytes", "Size of a slot.", [](const halvo_channel &q) { return int64_t{q.qbsz}; }},
    {"ratio", "Ratio of the channel.",
     [](const halvo_channel &q) { return int64_t{q.tcnt[0].ratio}; }},
    {"rate_limit", "Read-rate limit in messages per second; 0 is none.",
     [](const halvo_channel &q) { return int64_t{q.tpsmx > 0 ? q.tpsmx : 0}; }},
    {"throttled", "1 while reads are refused for the limit.",
     [](const halvo_channel &q) { return int64_t{q.throttled != 0}; }},
    {"last_in_timestamp_seconds", "Time of the last message put; 0 is never.",
     [](const halvo_channel &q) { return int64_t{q.lastin}; }},
    {"last_out_timestamp_seconds", "Time of the last message consumed; 0 is never.",
     [](const halvo_channel &q) { return int64_t{q.lastout}; }},
};

template <class F>
void each_channel(const Image &image, F f) {
    for (int i = 0; i < image.channels(); ++i)
        if (image.usable(i)) f(i, image.channel(i));
}

void add_up(Exposition &out, bool up) {
    out.family("up", "gauge", "1 while there is a segment to look at.");
    out.sample("", int{up});
}

void add_segment(Exposition &out, const Image &image) {
    out.family("channels", "gauge", "Channels of the segment.");
    out.sample("", image.channels());
    out.family("start_timestamp_seconds", "gauge",
               "Start of the monitor; 0 before its first table.");
    out.sample("", image.header().uptime);
    out.family("clock_timestamp_seconds", "gauge", "The segment's cached clock.");
    out.sample("", image.header().now);
}

template <class Family, size_t N>
void add_families(Exposition &out, const Image &image, const Family (&families)[N],
                  const char *type) {
    for (const Family &family : families) {
        out.family((std::string("channel_") + family.name).c_str(), type, family.help);
        each_channel(image, [&](int number, const halvo_channel &q) {
            out.sample(labels_of(image, number), family.value(q));
        });
    }
}

void add_ends(Exposition &out, const Image &image, int32_t now) {
    const auto family = [&](const char *name, const char *help, auto value) {
        out.family(name, "gauge", help);
        each_channel(image, [&](int number, const halvo_channel &q) {
            for (const End &end : kEnds)
                out.sample(labels_of(image, number) + ",end=\"" + end.name + "\"", value(q, end));
        });
    };
    family("channel_heartbeat_timestamp_seconds", "Time of an end's last operation; 0 is never.",
           [](const halvo_channel &q, const End &end) { return q.*end.stamp; });
    family("channel_active", "1 while an end is active.",
           [=](const halvo_channel &q, const End &end) { return int{is_active(q, end, now)}; });
    family("channel_process_id", "Process that held an end last; 0 is none.",
           [](const halvo_channel &q, const End &end) { return q.*end.pid; });
}

// The replies that another channel counts for a channel.
struct Reply {
    const char *name;
    int32_t halvo_channel::*type;
};
constexpr Reply kReplies[] = {{"ack", &halvo_channel::acktype},
                              {"result", &halvo_channel::rslttype}};

void add_replies(Exposition &out, const Image &image) {
    const auto family = [&](const char *name, const char *help, auto value) {
        out.family(name, "counter", help);
        each_channel(image, [&](int number, const halvo_channel &q) {
            if (!has_replies(q) || q.ackq >= image.channels()) return;
            for (const Reply &reply : kReplies)
                if (is_type(q.*reply.type))
                    out.sample(labels_of(image, number) + ",reply=\"" + reply.name + "\"",
                               value(image.channel(q.ackq).tcnt[q.*reply.type]));
        });
    };
    family("channel_replies_total", "Replies counted for a channel.",
           [](const halvo_counter &c) -> uint64_t { return c.count; });
    family("channel_reply_errors_total", "Replies without the flag.",
           [](const halvo_counter &c) -> uint64_t { return c.count - c.ecount; });
}

void add_types(Exposition &out, const Image &image) {
    out.family("channel_type_messages_total", "counter",
               "Messages by type, for types that have any.");
    each_channel(image, [&](int number, const halvo_channel &q) {
        for (int type = 1; type < HALVO_TYPES; ++type)
            if (q.tcnt[type].count != 0)
                out.sample(labels_of(image, number) + ",message_type=\"" + std::to_string(type) +
                               "\",type_name=\"" + name_of(image.header().qtcnt[type].tname) + "\"",
                           uint64_t{q.tcnt[type].count});
    });
}

} // namespace

std::string prometheus_text(const Image &image, int32_t now) {
    Exposition out;
    add_up(out, true);
    add_segment(out, image);
    add_families(out, image, kCounters, "counter");
    add_families(out, image, kGauges, "gauge");
    add_ends(out, image, now);
    add_replies(out, image);
    add_types(out, image);
    return out.text();
}

std::string prometheus_text_of_nothing() {
    Exposition out;
    add_up(out, false);
    return out.text();
}

} // namespace halvo::mon
