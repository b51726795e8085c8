#include "tools/mon/publish.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/frame/files.h"
#include "tools/frame/program.h"
#include "tools/mon/prometheus.h"
#include "tools/mon/serve.h"
#include "tools/mon/tracker.h"

namespace halvo::mon {

using tools::kFailed;
using tools::kUsage;
using tools::ToolError;

namespace {

struct Given {
    std::string output = "-", listen = "127.0.0.1:9470";
    bool allow_remote = false;
};

// Without a segment the file says so: one of a segment that is gone would hide that.
void write_metrics(const std::string &key_file, const std::string &path, int output) {
    Sampler sampler(key_file);
    Sample sample = sampler.take();
    Tracker().judge(sample);
    const std::string text = prometheus_text(sample, sampler.view());
    if (path == "-")
        tools::write_out(output, "standard output", text);
    else if (!tools::replace_file(path, text))
        throw ToolError(kFailed, path + ": " + std::strerror(errno));
    if (!sample.up) throw ToolError(kUsage, sample.fault);
}

void serve_at(const std::string &key_file, const Given &given, int output) {
    const ListenAddress address = parse_listen(given.listen);
    if (!address.loopback) {
        if (!given.allow_remote)
            throw ToolError(kUsage, given.listen + ": other machines could read the figures there; "
                                                   "--allow-remote permits it");
        std::fprintf(stderr,
                     "halvo-mon: warning: whoever reaches %s can read all figures; nobody is asked "
                     "for a password\n",
                     given.listen.c_str());
    }
    serve({key_file, address}, output);
}

} // namespace

void add_publishing(CLI::App &app, const std::string &key_file, Work &work) {
    const auto given = std::make_shared<Given>();
    CLI::App *prometheus = app.add_subcommand("prometheus", "Metrics for a textfile collector");
    prometheus->add_option("--output", given->output, "File to replace; - is standard output")
        ->capture_default_str();
    prometheus->callback([&key_file, &work, given] {
        work = [&, given](int output) { write_metrics(key_file, given->output, output); };
    });

    CLI::App *served = app.add_subcommand(
        "serve",
        "Serve a page for browsers, JSON, and metrics for Prometheus, until it is stopped");
    served->add_option("--listen", given->listen, "Address and port; port 0 takes a free one")
        ->capture_default_str();
    served->add_flag("--allow-remote", given->allow_remote,
                     "Permit an address that other machines can reach");
    served->callback([&key_file, &work, given] {
        work = [&, given](int output) { serve_at(key_file, *given, output); };
    });
}

} // namespace halvo::mon
