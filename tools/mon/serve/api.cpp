#include "tools/mon/serve/api.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstring>

#include "core/segment/ring.h"

namespace halvo::mon {

using Json = nlohmann::ordered_json;

namespace {

std::string dumped(const Json &json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// One digit behind the point is enough for an eye, and short on the way.
double rounded(double rate) { return std::round(rate * 10) / 10; }

// Whether messages are late or lost unless somebody comes, or only slow.
const char *level_of(Trouble trouble) {
    if (trouble == Trouble::none) return "ok";
    return trouble >= Trouble::stalled ? "bad" : "warn";
}

const char *state_of(const ChannelSample &channel) {
    if (channel.trouble != Trouble::none) return word_of(channel.trouble);
    if (channel.in_rate > 0 || channel.out_rate > 0) return "flowing";
    return channel.depth() > 0 ? "waiting" : "idle";
}

Json trouble_json(const ChannelSample &channel) {
    Json troubles = Json::array();
    if (channel.trouble == Trouble::none) return troubles;
    const std::string text =
        channel.trouble == Trouble::damaged ? channel.damage : meaning_of(channel.trouble);
    troubles.push_back(
        {{"word", word_of(channel.trouble)}, {"level", level_of(channel.trouble)}, {"text", text}});
    return troubles;
}

Json end_json(const char *kind, const EndSample &end) {
    return {{"kind", kind},
            {"name", end.name},
            {"pid", end.pid},
            {"held", end.held == Held::unknown ? Json() : Json(end.held == Held::yes)},
            {"alive", end.alive},
            {"heartbeat", end.stamp}};
}

Json channel_object(const ChannelSample &channel) {
    return {{"number", channel.number},
            {"name", channel.name},
            {"type", shown_name(&channel.type, 1)},
            {"state", state_of(channel)},
            {"level", level_of(channel.trouble)},
            {"rank", static_cast<int>(channel.trouble)},
            {"trouble", trouble_json(channel)},
            {"depth", channel.depth()},
            {"slots", channel.slots},
            {"fill", std::round(channel.fill() * 1000) / 1000},
            {"in", rounded(channel.in_rate)},
            {"out", rounded(channel.out_rate)},
            {"oldest", channel.oldest},
            {"throttled", channel.throttled},
            {"waiting_writers", channel.waiting_writers},
            {"waiting_readers", channel.waiting_readers},
            {"parked", channel.parked},
            {"errors", channel.errors},
            {"last_in", channel.last_in},
            {"last_out", channel.last_out},
            {"writer", end_json("writer", channel.writer)},
            {"reader", end_json("reader", channel.reader)}};
}

void add_counts(Json &json, const ChannelSample &channel) {
    json["ring_depth"] = channel.ring_depth();
    json["file_depth"] = channel.file_depth();
    json["put"] = channel.put;
    json["got"] = channel.got;
    json["file_put"] = channel.file_put;
    json["file_got"] = channel.file_got;
    json["slot_bytes"] = channel.slot_bytes;
    json["rate_limit"] = channel.rate_limit;
    json["file_writer"] = end_json("file writer", channel.file_writer);
    json["file_reader"] = end_json("file reader", channel.file_reader);
    json["error_time"] = channel.last_error;
}

Json types_json(const qm::SegmentView &view, int number) {
    Json types = Json::array();
    for (const TypeCount &type : types_of(view, number))
        types.push_back({{"type", type.type},
                         {"name", type.name},
                         {"count", type.count},
                         {"errors", type.errors}});
    return types;
}

Json clients_json(const halvo_channel &q) {
    Json clients = Json::array();
    const auto add = [&](const halvo_client(&list)[HALVO_CLIENTS], const char *side) {
        for (const halvo_client &client : list)
            if (load(client.pid) > 0)
                clients.push_back(
                    {{"pid", load(client.pid)}, {"side", side}, {"time", load(client.time)}});
    };
    add(q.pclients, "writer");
    add(q.gclients, "reader");
    return clients;
}

std::string closed(std::string head, const char *name, const Json &json) {
    return std::move(head) + ",\"" + name + "\":" + dumped(json) + "}";
}

} // namespace

std::string json_text(const std::string &utf8) { return dumped(Json(utf8)); }

std::string json_head(const Serving &serving, const Sample &sample) {
    Json segment = {
        {"up", sample.up},           {"why", sample.fault},  {"key_file", serving.key_file},
        {"epoch", serving.epoch},    {"id", sample.id},      {"bytes", sample.bytes},
        {"started", sample.started}, {"clock", sample.clock}};
    const Json head = {{"version", kApiVersion},
                       {"server", serving.server},
                       {"sample", serving.number},
                       {"time", sample.time * 1000},
                       {"segment", std::move(segment)}};
    std::string text = dumped(head);
    text.pop_back();
    return text;
}

std::string channels_json(const Serving &serving, const Sample &sample) {
    Json channels = Json::array();
    double in = 0, out = 0;
    int64_t depth = 0;
    for (const ChannelSample &channel : sample.channels) {
        channels.push_back(channel_object(channel));
        depth += channel.depth();
        in += channel.in_rate;
        out += channel.out_rate;
    }
    const Json totals = {{"trouble", sample.in_trouble()},
                         {"depth", depth},
                         {"in", rounded(in)},
                         {"out", rounded(out)}};
    const std::string head = json_head(serving, sample) + ",\"totals\":" + dumped(totals);
    return closed(head, "channels", channels);
}

std::string channel_json(const Serving &serving, const Sample &sample, int number,
                         const qm::SegmentView &view) {
    const ChannelSample &channel = sample.channels[static_cast<size_t>(number)];
    Json json = channel_object(channel);
    add_counts(json, channel);
    const halvo_channel *q = view.channel(static_cast<uint32_t>(number));
    const bool usable = q && channel.damage.empty();
    json["error_code"] = usable ? shown_name(q->lasterr, sizeof q->lasterr) : "";
    json["types"] = usable ? types_json(view, number) : Json::array();
    json["clients"] = usable ? clients_json(*q) : Json::array();
    return closed(json_head(serving, sample), "channel", json);
}

} // namespace halvo::mon
