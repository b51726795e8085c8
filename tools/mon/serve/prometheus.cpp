#include "tools/mon/serve/prometheus.h"

#include "print/figures.h"

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

// A channel that can be followed, with the labels that all of its samples have.
struct Row {
    const ChannelSample &channel;
    const halvo_channel &q;
    std::string labels;
};

std::string labels_of(const ChannelSample &channel) {
    return "channel=\"" + escaped(channel.name) + "\",number=\"" + std::to_string(channel.number) +
           "\",type=\"" + escaped(shown_name(&channel.type, 1)) + "\"";
}

class Exposition {
public:
    void family(const std::string &name, const char *type, const char *help) {
        name_ = "halvo_" + name;
        text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
    }
    template <class Number>
    void sample(const std::string &labels, Number value) {
        text_ += name_;
        if (!labels.empty()) text_.append("{").append(labels).append("}");
        text_.append(" ").append(std::to_string(value)).append("\n");
    }
    const std::string &text() const { return text_; }

private:
    std::string name_;
    std::string text_;
};

struct CounterFamily {
    const char *name, *help;
    uint64_t (*value)(const Row &);
};
constexpr CounterFamily kCounters[] = {
    {"ring_put_total", "Messages that became readable in the ring.",
     [](const Row &row) { return row.channel.put; }},
    {"ring_got_total", "Messages consumed from the ring.",
     [](const Row &row) { return row.channel.got; }},
    {"errors_total", "Messages consumed with an error.",
     [](const Row &row) { return row.channel.errors; }},
    {"file_put_total", "Messages put into the file queue.",
     [](const Row &row) { return row.channel.file_put; }},
    {"file_got_total", "Messages taken from the file queue.",
     [](const Row &row) { return row.channel.file_got; }},
    {"done_total", "Messages processed, by the ring for type M, else by the file queue.",
     [](const Row &row) { return shows_ring(row.q) ? row.channel.got : row.channel.file_got; }},
};

struct GaugeFamily {
    const char *name, *help;
    int64_t (*value)(const Row &);
};
constexpr GaugeFamily kGauges[] = {
    {"backlog", "Messages waiting in ring and file queue.",
     [](const Row &row) { return row.channel.depth(); }},
    {"ring_backlog", "Messages waiting in the ring.",
     [](const Row &row) { return row.channel.ring_depth(); }},
    {"oldest_seconds", "How long the next message has waited at the least.",
     [](const Row &row) { return int64_t{row.channel.oldest}; }},
    {"full", "1 while there is no room for the next message.",
     [](const Row &row) { return int64_t{row.channel.full}; }},
    {"parked", "Messages in write buffers.",
     [](const Row &row) { return int64_t{row.channel.parked}; }},
    {"slots", "Slots of the ring.", [](const Row &row) { return int64_t{row.channel.slots}; }},
    {"slot_bytes", "Size of a slot.",
     [](const Row &row) { return int64_t{row.channel.slot_bytes}; }},
    {"ratio", "Ratio of the channel.", [](const Row &row) { return int64_t{row.q.tcnt[0].ratio}; }},
    {"rate_limit", "Read-rate limit in messages per second; 0 is none.",
     [](const Row &row) { return int64_t{std::max(row.channel.rate_limit, 0)}; }},
    {"throttled", "1 while reads are refused for the limit.",
     [](const Row &row) { return int64_t{row.channel.throttled}; }},
    {"last_in_timestamp_seconds", "Time of the last message put; 0 is never.",
     [](const Row &row) { return int64_t{row.channel.last_in}; }},
    {"last_out_timestamp_seconds", "Time of the last message consumed; 0 is never.",
     [](const Row &row) { return int64_t{row.channel.last_out}; }},
    {"last_error_timestamp_seconds", "Time of the last message consumed with an error; 0 is never.",
     [](const Row &row) { return int64_t{row.channel.last_error}; }},
};

using Rows = std::vector<Row>;

void add_segment(Exposition &out, const Sample &sample) {
    out.family("up", "gauge", "1 while there is a segment to look at.");
    out.sample("", int{sample.up});
    out.family("sample_timestamp_seconds", "gauge", "When these figures were taken.");
    out.sample("", sample.time);
    if (!sample.up) return;
    out.family("channels", "gauge", "Channels of the segment.");
    out.sample("", sample.channels.size());
    out.family("segment_bytes", "gauge", "Size of the segment.");
    out.sample("", sample.bytes);
    out.family("start_timestamp_seconds", "gauge",
               "Start of the monitor; 0 before its first table.");
    out.sample("", sample.started);
    out.family("clock_timestamp_seconds", "gauge", "The segment's cached clock.");
    out.sample("", sample.clock);
}

template <class Family, size_t N>
void add_families(Exposition &out, const Rows &rows, const Family (&families)[N],
                  const char *type) {
    for (const Family &family : families) {
        out.family(std::string("channel_") + family.name, type, family.help);
        for (const Row &row : rows) out.sample(row.labels, family.value(row));
    }
}

// What is wrong with channels, those among them that cannot be followed.
void add_troubles(Exposition &out, const Sample &sample, const Rows &rows) {
    out.family("channel_fill_ratio", "gauge", "Part of the ring that is in use, 0 to 1.");
    for (const Row &row : rows) out.sample(row.labels, row.channel.fill());
    out.family("channel_damaged", "gauge", "1 when the channel's header cannot be followed.");
    for (const ChannelSample &channel : sample.channels)
        out.sample(labels_of(channel), int{!channel.damage.empty()});
    out.family("channel_trouble", "gauge", "1 for what is wrong with a channel, if anything is.");
    for (const ChannelSample &channel : sample.channels)
        if (channel.trouble != Trouble::none)
            out.sample(labels_of(channel) + ",trouble=\"" + word_of(channel.trouble) + "\"", 1);
}

void add_ends(Exposition &out, const Rows &rows, int32_t now) {
    const auto family = [&](const char *name, const char *help, auto value) {
        out.family(name, "gauge", help);
        for (const Row &row : rows)
            for (const End &end : kEnds)
                out.sample(row.labels + ",end=\"" + end.name + "\"", value(row.q, end));
    };
    family("channel_heartbeat_timestamp_seconds", "Time of an end's last operation; 0 is never.",
           [](const halvo_channel &q, const End &end) { return load(q.*end.stamp); });
    family("channel_active", "1 while an end is active.",
           [=](const halvo_channel &q, const End &end) { return int{is_active(q, end, now)}; });
    family("channel_process_id", "Process that held an end last; 0 is none.",
           [](const halvo_channel &q, const End &end) { return load(q.*end.pid); });
}

// The ends of the rings, by their semaphores.
void add_holders(Exposition &out, const Rows &rows) {
    const auto family = [&](const char *name, const char *help, auto add) {
        out.family(name, "gauge", help);
        for (const Row &row : rows) {
            add(row.labels + ",end=\"writer\"", row.channel.writer, row.channel.waiting_writers);
            add(row.labels + ",end=\"reader\"", row.channel.reader, row.channel.waiting_readers);
        }
    };
    family("channel_end_held", "1 while a process holds an end; nothing when it is not known.",
           [&](const std::string &labels, const EndSample &end, int32_t) {
               if (end.held != Held::unknown) out.sample(labels, int{end.held == Held::yes});
           });
    family("channel_end_alive", "1 while there is a process of the id that an end has.",
           [&](const std::string &labels, const EndSample &end, int32_t) {
               out.sample(labels, int{end.alive});
           });
    family("channel_waiters", "Callers that an end has waiting.",
           [&](const std::string &labels, const EndSample &, int32_t waiters) {
               out.sample(labels, waiters);
           });
}

// The replies that another channel counts for a channel.
struct Reply {
    const char *name;
    halvo_i32 halvo_channel::*type;
};
constexpr Reply kReplies[] = {{"ack", &halvo_channel::acktype},
                              {"result", &halvo_channel::rslttype}};

void add_replies(Exposition &out, const Rows &rows, const qm::SegmentView &view) {
    const auto family = [&](const char *name, const char *help, auto value) {
        out.family(name, "counter", help);
        for (const Row &row : rows) {
            const auto by = static_cast<uint32_t>(load(row.q.ackq));
            const halvo_channel *counting =
                has_replies(row.q) && by < view.channels() ? view.channel(by) : nullptr;
            for (const Reply &reply : kReplies)
                if (const int type = load(row.q.*reply.type); counting && is_type(type))
                    out.sample(row.labels + ",reply=\"" + reply.name + "\"",
                               value(counting->tcnt[type]));
        }
    };
    family("channel_replies_total", "Replies counted for a channel.",
           [](const halvo_counter &c) -> uint64_t { return c.count; });
    family("channel_reply_errors_total", "Replies without the flag.",
           [](const halvo_counter &c) -> uint64_t { return c.count - c.ecount; });
}

void add_types(Exposition &out, const Rows &rows, const qm::SegmentView &view) {
    out.family("channel_type_messages_total", "counter",
               "Messages by type, for types that have any.");
    for (const Row &row : rows) {
        view.prefault(static_cast<uint32_t>(row.channel.number));
        for (const TypeCount &type : types_of(view, row.channel.number))
            if (type.count != 0)
                out.sample(row.labels + ",message_type=\"" + std::to_string(type.type) +
                               "\",type_name=\"" + escaped(type.name) + "\"",
                           type.count);
        view.release(static_cast<uint32_t>(row.channel.number));
    }
}

} // namespace

std::string prometheus_text(const Sample &sample, const qm::SegmentView *view) {
    Exposition out;
    add_segment(out, sample);
    if (!sample.up || !view) return out.text();
    Rows rows;
    for (const ChannelSample &channel : sample.channels)
        if (channel.damage.empty())
            rows.push_back({channel, *view->channel(static_cast<uint32_t>(channel.number)),
                            labels_of(channel)});
    add_families(out, rows, kCounters, "counter");
    add_families(out, rows, kGauges, "gauge");
    add_troubles(out, sample, rows);
    add_ends(out, rows, static_cast<int32_t>(sample.time));
    add_holders(out, rows);
    add_replies(out, rows, *view);
    add_types(out, rows, *view);
    return out.text();
}

} // namespace halvo::mon
