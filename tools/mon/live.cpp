// halvo-mon: the command of the live screen.
#include <CLI/CLI.hpp>

#include "tools/mon/options.h"
#include "tools/mon/top.h"

namespace halvo::mon {

namespace {

void show_top(const Options &options, int output) {
    options.once();
    LiveSource source(options.segment.key_file);
    // What is wrong is told at once, where nothing is to be waited for yet.
    if (const Sample sample = source.take(); !sample.up)
        throw tools::ToolError(tools::kUsage, sample.fault);
    Terminal terminal(output, options.utf8, options.wants_colours(output));
    Top(source, terminal, options.every).run();
}

} // namespace

void add_live(CLI::App &app, Options &options, Work &work) {
    CLI::App *top =
        app.add_subcommand("top", "The live screen of all channels: sort, filter, details");
    top->add_option("--every", options.every, "Look again every so many seconds")
        ->check(CLI::Range(0.1, 3600.0))
        ->type_name("SECONDS")
        ->capture_default_str();
    top->callback([&] { work = [&](int output) { show_top(options, output); }; });
}

} // namespace halvo::mon
