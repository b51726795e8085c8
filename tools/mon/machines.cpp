// halvo-mon: the commands whose readers are programs: metrics and checks.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#include "tools/frame/files.h"
#include "tools/frame/program.h"
#include "tools/mon/look/tracker.h"
#include "tools/mon/options.h"
#include "tools/mon/serve/prometheus.h"

namespace halvo::mon {

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

void add_check(CLI::App &check, Options &options) {
    const auto limit = [&](const char *name, int64_t &value, const char *what) {
        check.add_option(name, value, what)->check(tools::at_least_zero)->type_name("N");
    };
    Demands &demands = options.check.demands;
    limit("--warning", demands.backlog.warning, "Warn above so many waiting messages");
    limit("--critical", demands.backlog.critical, "Critical above so many");
    limit("--warning-age", demands.age.warning, "Warn when an end did nothing for more seconds");
    limit("--critical-age", demands.age.critical, "Critical for more seconds");
    check.add_option("--end", options.end, "Ends whose age counts")
        ->check(CLI::IsMember({"reader", "writer", "both"}))
        ->capture_default_str();
    check.add_option("--held", options.held, "Critical when no living process holds these ends")
        ->check(CLI::IsMember({"reader", "writer", "both", "none"}))
        ->capture_default_str();
    check.add_option("--limits", options.limits, "TOML file of limits for each channel")
        ->type_name("FILE");
    check.add_option("--channel", options.check.channels, "Channels to look at; all without");
}

} // namespace

void Options::once() const {
    if (watch > 0) throw ToolError(tools::kUsage, "--watch is for tables and the log");
}

void add_machines(CLI::App &app, Options &options, Work &work) {
    CLI::App *prometheus = app.add_subcommand("prometheus", "Metrics for a textfile collector");
    prometheus->add_option("-o,--output", options.output, "File to replace; - is standard output")
        ->capture_default_str();
    prometheus->callback([&] { work = [&](int output) { expose(options, output); }; });

    CLI::App *check = app.add_subcommand("check", "Answer as a Nagios plugin");
    add_check(*check, options);
    check->callback([&] {
        options.answers_as_plugin = true;
        work = [&](int output) { answer_check(options, output); };
    });
}

} // namespace halvo::mon
