// smsqm_print: the XML and the JSON document, from one table of fields.
#include "print/documents.h"

#include <pthread.h>

#include <cstdio>

#include "print/facts.h"

namespace halvo {

namespace {

// The scratch buffers are shared; Java threads ask for the document without knowing of each other.
pthread_mutex_t building = PTHREAD_MUTEX_INITIALIZER;

struct Cell {
    char text[64];
    template <class... Values>
    void print(const char *format, Values... values) noexcept {
        std::snprintf(text, sizeof text, format, values...);
    }
};

using Write = void (*)(const Facts &, Cell &);

template <int64_t Facts::*Figure>
void count(const Facts &facts, Cell &cell) {
    cell.print("%lld", static_cast<long long>(facts.*Figure));
}
template <Replies Facts::*Kind, int64_t Replies::*Figure>
void reply(const Facts &facts, Cell &cell) {
    cell.print("%lld", static_cast<long long>(facts.*Kind.*Figure));
}
template <halvo_i32 halvo_channel::*Word>
void word(const Facts &facts, Cell &cell) {
    cell.print("%ld", static_cast<long>(load(facts.q->*Word)));
}
template <halvo_i32 halvo_channel::*Stamp>
void elapsed(const Facts &facts, Cell &cell) {
    q_print_elapsed_str(cell.text, load(facts.q->*Stamp));
}
void activity(const Facts &facts, Cell &cell) { cell.print("%s", facts.activity); }
void size(const Facts &facts, Cell &cell) {
    cell.print("%2dK*%3d", static_cast<int>(facts.q->qbsz >> 10), static_cast<int>(facts.q->qcnt));
}
void ratio(const Facts &facts, Cell &cell) {
    cell.print("%2ld", static_cast<long>(load(facts.q->tcnt[0].ratio)));
}
void slots(const Facts &facts, Cell &cell) {
    const RingLetters ring = ring_letters(facts.q);
    cell.print("%c%c %s%s", ring.writing, ring.reading,
               buffer_letters(facts.q, facts.q->wbufs).text,
               buffer_letters(facts.q, facts.q->rbufs).text);
}

struct Field {
    const char *tag;
    const char *key;
    bool quoted; // in JSON
    Write write;
};

constexpr Field kFields[] = {
    {"stat", "stat", true, activity},
    {"alloc", "alloc", true, size},
    {"master", "master", false, ratio},
    {"tpsmx", "tpsmx", false, word<&halvo_channel::tpsmx>},
    {"tot", "tot", false, count<&Facts::backlog>},
    {"mem", "mem", false, count<&Facts::ring_backlog>},
    {"done", "done", false, count<&Facts::done>},
    {"edone", "edone", false, count<&Facts::errors>},
    {"ack", "ack", false, reply<&Facts::acks, &Replies::count>},
    {"eack", "eack", false, reply<&Facts::acks, &Replies::errors>},
    {"rslt", "rslt", false, reply<&Facts::results, &Replies::count>},
    {"erslt", "erslt", false, reply<&Facts::results, &Replies::errors>},
    {"rwrw", "rwrw", true, slots},
    {"last-in", "lastin", true, elapsed<&halvo_channel::lastin>},
    {"last-out", "lastout", true, elapsed<&halvo_channel::lastout>},
    {"pidp", "pidp", false, word<&halvo_channel::pidp>},
    {"pidpf", "pidpf", false, word<&halvo_channel::pidpf>},
    {"pidg", "pidg", false, word<&halvo_channel::pidg>},
    {"pidgf", "pidgf", false, word<&halvo_channel::pidgf>},
};

void add_xml(Text &out, const Facts &facts) {
    out.add(format_cell("<q name=\"%s\" id=\"%d\" type=\"%c\">", facts.name, facts.channel,
                        facts.q->qtype));
    for (const Field &field : kFields) {
        Cell cell{};
        field.write(facts, cell);
        out.add(format_cell("<%s>%s</%s>", field.tag, cell.text, field.tag));
    }
    out.add("</q>\n");
}

void add_json(Text &out, const Facts &facts) {
    out.add(format_cell("{ \"name\":\"%s\",\"id\":%d, \"type\":\"%c\"", facts.name, facts.channel,
                        facts.q->qtype));
    for (const Field &field : kFields) {
        Cell cell{};
        field.write(facts, cell);
        out.add(format_cell(field.quoted ? ",\"%s\":\"%s\"" : ",\"%s\":%s", field.key, cell.text));
    }
    out.add("}");
}

void copy_out(const Text &document, char *out) {
    // Half a document would be worse than none.
    std::strcpy(out, document.complete() ? document.c_str() : "");
}

} // namespace

void xml_document(Text &out, char mode) noexcept {
    const MutexLock turn(building);
    const int32_t now = begin_print();
    const Baseline baseline = Baseline::of_snapshot();
    out.add("<smsqm>");
    walk(channels_of(mode), [&](const Visit &visit) {
        const Facts facts = facts_of(visit, now, Rate::exact, baseline);
        if (facts.active || shows_idle(mode)) add_xml(out, facts);
    });
    out.add("</smsqm>");
}

void json_document(Text &out) noexcept {
    const MutexLock turn(building);
    const int32_t now = begin_print();
    out.add("{\"smsqm\":[");
    const halvo_segment *segment = attached_segment();
    if (!segment) {
        out.add(" qm0 is null"); // Kept: no valid JSON; callers show it as it is
        return;
    }
    const int last = channel_count(segment) - 1;
    walk(Channels::all, [&](const Visit &visit) {
        add_json(out, facts_of(visit, now, Rate::exact, Baseline::zeros()));
        out.add(visit.channel < last ? ",\n" : "\n");
    });
    out.add("],\n");
    out.add(format_cell("\"uptime\":%ld", static_cast<long>(load(segment->uptime))));
    out.add("}");
}

} // namespace halvo

using namespace halvo;

int q_statprint_xml(char mode, char *out) noexcept {
    const CancellationOff whole_call;
    if (!out) return 0;
    Text document;
    xml_document(document, mode);
    copy_out(document, out);
    return 0;
}

// Kept: the mode is not asked; the document always lists every channel.
int q_statprint_json(char, char *out) noexcept {
    const CancellationOff whole_call;
    if (!out) return 0;
    Text document;
    json_document(document);
    copy_out(document, out);
    return 0;
}
