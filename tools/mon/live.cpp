// halvo-mon: the commands that look again and again: the live screen, the record, and what comes of it.
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "tools/mon/options.h"
#include "tools/mon/record/replay.h"
#include "tools/mon/screen/top.h"

namespace halvo::mon {

using tools::Command;
using tools::kUsage;
using tools::Option;
using tools::ToolError;
using tools::write_out;

namespace {

constexpr int64_t kMegabyte = 1 << 20;

void go_to_time(RecordSource &record, const std::string &words) {
    const int64_t latest = record.time_of(record.size() - 1);
    record.go_to(record.position_of(time_of_words(words, latest)));
}

void show_top(const Options &options, int output) {
    options.once();
    const auto show = [&](Source &source) {
        Terminal terminal(output, options.utf8, options.wants_colours(output));
        Top(source, terminal, options.every).run();
    };
    if (!options.from.empty()) {
        RecordSource record(options.from);
        if (!options.at.empty()) go_to_time(record, options.at);
        return show(record);
    }
    LiveSource source(options.segment.key_file);
    // What is wrong is told at once, where nothing is to be waited for yet.
    if (const Sample sample = source.take(); !sample.up) throw ToolError(kUsage, sample.fault);
    show(source);
}

// A look that cannot be written is told and missing; the next one may find room.
void keep_record(const Options &options) {
    options.once();
    Recorder recorder(options.from, options.megabytes * kMegabyte);
    Sampler sampler(options.segment.key_file);
    timespec due{};
    clock_gettime(CLOCK_MONOTONIC, &due);
    std::string told;
    while (!tools::stop_signal()) {
        std::string fault;
        try {
            recorder.add(sampler.take());
        } catch (const ToolError &error) {
            fault = error.what();
        }
        if (!fault.empty() && fault != told)
            std::fprintf(stderr, "halvo-mon: %s; goes on\n", fault.c_str());
        told = fault;
        const auto seconds = static_cast<time_t>(options.every_recorded);
        due.tv_sec += seconds;
        due.tv_nsec +=
            static_cast<long>((options.every_recorded - static_cast<double>(seconds)) * 1e9);
        due.tv_sec += due.tv_nsec / 1000000000L;
        due.tv_nsec %= 1000000000L;
        while (!tools::stop_signal() &&
               clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
        }
    }
}

void replay(const Options &options, int output) {
    options.once();
    RecordSource record(options.from);
    std::string out;
    if (!options.at.empty()) {
        go_to_time(record, options.at);
        out = table_of(record.take());
    } else if (!options.channel.empty()) {
        const std::string &name = options.channel;
        out = course_of(record, tools::to_euc_kr(name) ? name : tools::to_utf8(name));
    } else {
        out = story_of(record);
    }
    if (!options.utf8) out = tools::to_euc_kr(out).value_or(out);
    write_out(output, "standard output", out);
}

void add_every(const Command &command, double &seconds) {
    command.option("--every", seconds, "Look again every so many seconds, or 500ms, 5m, 1h")
        .duration(0.1, 86400.0)
        .show_default();
}

constexpr char kAt[] = "Time in the record: 02:30, 02:30:15 or \"2026-01-31 02:30\"";

} // namespace

void add_live(const tools::Program &program, Options &options, Work &work) {
    const Command top =
        program.command("top", "The live screen of all channels: sort, filter, details");
    add_every(top, options.every);
    const Option from =
        top.option("--from", options.from, "Show a record instead; no --key").type_name("FILE");
    top.option("--at", options.at, kAt).type_name("TIME").needs(from);
    top.when_chosen([&] {
        options.needs_key = options.from.empty();
        work = [&](int output) { show_top(options, output); };
    });

    const Command record = program.command("record", "Keep a bounded record of all figures");
    record.option("FILE", options.from, "File of SQLite, made or added to").required();
    add_every(record, options.every_recorded);
    record.option("--most", options.megabytes, "Greatest size of the file; the oldest looks go")
        .range(1, 100000)
        .type_name("MB")
        .show_default();
    record.when_chosen([&] { work = [&](int) { keep_record(options); }; });

    const Command again = program.command("replay", "Tell from a record what wanted a look");
    again.option("FILE", options.from, "The record").required();
    const Option at = again.option("--at", options.at, kAt).type_name("TIME");
    again.option("--channel", options.channel, "One channel's figures at each look")
        .type_name("NAME")
        .excludes(at);
    again.when_chosen([&] {
        options.needs_key = false;
        work = [&](int output) { replay(options, output); };
    });
}

} // namespace halvo::mon
