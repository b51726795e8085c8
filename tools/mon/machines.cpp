// halvo-mon: the commands whose readers are programs: metrics and checks.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/frame/files.h"
#include "tools/frame/program.h"
#include "tools/mon/look/tracker.h"
#include "tools/mon/options.h"
#include "tools/mon/serve/prometheus.h"

namespace halvo::mon {

using tools::Command;
using tools::kFailed;
using tools::ToolError;
using tools::write_out;

namespace {

void leave(const Options &options, int output, const std::string &text) {
    if (options.output == "-") return write_out(output, "standard output", text);
    // A collector must never see half a file.
    if (!tools::replace_file(options.output, text))
        throw ToolError(kFailed, options.output + ": " + std::strerror(errno));
}

// Without a segment the figures say so, or the collector would take the old ones for new.
void expose(const Options &options, int output) {
    options.once();
    Sampler sampler(options.segment.key_file);
    Sample sample = sampler.take();
    Tracker().judge(sample);
    leave(options, output, prometheus_text(sample, sampler.view()));
    if (!sample.up) throw ToolError(tools::kUsage, sample.fault);
}

Answer answer_of(Options &options) {
    try {
        options.once();
        set_held(options.held, options.check.demands);
        if (!options.limits.empty()) load_limits(options.limits, options.check);
        return check(Sampler(options.segment.key_file).take(), options.check);
    } catch (const ToolError &error) {
        return unknown(error.what());
    }
}

void answer_check(Options &options, int output) {
    options.check.readers = options.end != "writer";
    options.check.writers = options.end != "reader";
    const Answer answer = answer_of(options);
    write_out(output, "standard output", answer.line + "\n");
    options.exit_status = static_cast<int>(answer.health);
}

void add_check(const Command &check, Options &options) {
    const auto limit = [&](const char *name, int64_t &value, const char *what) {
        check.option(name, value, what).check(tools::at_least_zero).type_name("N");
    };
    Demands &demands = options.check.demands;
    limit("--warning", demands.backlog.warning, "Warn above so many waiting messages");
    limit("--critical", demands.backlog.critical, "Critical above so many");
    limit("--warning-age", demands.age.warning, "Warn when an end did nothing for more seconds");
    limit("--critical-age", demands.age.critical, "Critical for more seconds");
    check.option("--end", options.end, "Ends whose age counts")
        .one_of({"reader", "writer", "both"})
        .show_default();
    check.option("--held", options.held, "Critical when no living process holds these ends")
        .one_of({"reader", "writer", "both", "none"})
        .show_default();
    check.option("--limits", options.limits, "TOML file of limits for each channel")
        .type_name("FILE");
    check.option("--channel", options.check.channels, "Channels to look at; all without");
}

} // namespace

void Options::once() const {
    if (watch > 0) throw ToolError(tools::kUsage, "--watch is for tables and the log");
}

void add_machines(const tools::Program &program, Options &options, Work &work) {
    const Command prometheus = program.command("prometheus", "Metrics for a textfile collector");
    prometheus.option("-o,--output", options.output, "File to replace; - is standard output")
        .show_default();
    prometheus.when_chosen([&] { work = [&](int output) { expose(options, output); }; });

    const Command check = program.command("check", "Answer as a Nagios plugin");
    add_check(check, options);
    check.answer_wrong_usage([](const std::string &fault) {
        std::puts(unknown(fault).line.c_str());
        return static_cast<int>(Health::unknown);
    });
    check.when_chosen([&] {
        options.answers_as_plugin = true;
        work = [&](int output) { answer_check(options, output); };
    });
}

} // namespace halvo::mon
