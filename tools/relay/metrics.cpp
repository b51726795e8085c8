#include "tools/relay/metrics.h"

#include <cstdio>

namespace halvo::relay {

namespace {

struct Family {
    const char *name, *type, *help;
    double (*value)(const Figures &);
};
template <class T>
double number(const std::atomic<T> &value) {
    return static_cast<double>(value.load());
}
constexpr Family kFamilies[] = {
    {"messages_total", "counter", "Messages relayed.",
     [](const Figures &f) { return number(f.messages); }},
    {"bytes_total", "counter", "Bytes of their bodies.",
     [](const Figures &f) { return number(f.bytes); }},
    {"batches_total", "counter", "Batches.", [](const Figures &f) { return number(f.batches); }},
    {"repeats_total", "counter", "In: repeats dropped; out: messages sent once more.",
     [](const Figures &f) { return number(f.repeats); }},
    {"dead_letters_total", "counter", "Messages put aside.",
     [](const Figures &f) { return number(f.dead_letters); }},
    {"returned_total", "counter", "Unroutable messages, each time they were tried.",
     [](const Figures &f) { return number(f.returned); }},
    {"refused_total", "counter", "Messages that the broker did not keep.",
     [](const Figures &f) { return number(f.refused); }},
    {"connections_total", "counter", "Connections made.",
     [](const Figures &f) { return number(f.connections); }},
    {"connection_losses_total", "counter", "Connections lost or refused.",
     [](const Figures &f) { return number(f.losses); }},
    {"missing_total", "counter", "Numbers of another relay that never came.",
     [](const Figures &f) { return number(f.missing); }},
    {"in_flight", "gauge", "Messages sent and not confirmed, or fetched and not written.",
     [](const Figures &f) { return number(f.in_flight); }},
    {"lag", "gauge", "Messages that wait before the route; -1 is unknown.",
     [](const Figures &f) { return number(f.lag); }},
    {"rate", "gauge", "Messages per second over the last second.",
     [](const Figures &f) { return number(f.rate) / 1000; }},
    {"last_message_timestamp_seconds", "gauge", "Time of the last message; 0 is never.",
     [](const Figures &f) { return number(f.last); }},
};

} // namespace

std::string metrics_text(const std::vector<RouteFigures> &routes) {
    std::string text;
    char line[256];
    const auto sample = [&](const char *name, const RouteFigures &of, const std::string &more,
                            double value) {
        std::snprintf(line, sizeof line, "halvo_relay_%s{route=\"%s\",direction=\"%s\"%s} %.15g\n",
                      name, of.route->name.c_str(), of.route->outgoing() ? "out" : "in",
                      more.c_str(), value);
        text += line;
    };
    const auto begin = [&](const char *name, const char *type, const char *help) {
        text += std::string("# HELP halvo_relay_") + name + " " + help + "\n# TYPE halvo_relay_" +
                name + " " + type + "\n";
    };
    for (const Family &family : kFamilies) {
        begin(family.name, family.type, family.help);
        for (const RouteFigures &of : routes)
            sample(family.name, of, "", family.value(*of.figures));
    }
    begin("state", "gauge", "1 for the state that the route is in.");
    for (const RouteFigures &of : routes)
        for (uint32_t phase = 0; phase <= static_cast<uint32_t>(Phase::failed); ++phase)
            sample("state", of,
                   std::string(",state=\"") + name_of(static_cast<Phase>(phase)) + "\"",
                   of.figures->phase == phase);
    return text;
}

} // namespace halvo::relay
