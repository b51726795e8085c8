// halvo-mon: the command that serves the figures.
#include <cstdio>
#include <memory>

#include "tools/frame/program.h"
#include "tools/mon/options.h"
#include "tools/mon/serve/serve.h"

namespace halvo::mon {

using tools::Command;
using tools::kUsage;
using tools::ToolError;

namespace {

struct Given {
    std::string listen = "127.0.0.1:9470";
    bool allow_remote = false;
};

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

void add_serve(const tools::Program &program, Options &options, Work &work) {
    const auto given = std::make_shared<Given>();
    const Command served = program.command(
        "serve",
        "Serve a page for browsers, JSON, and metrics for Prometheus, until it is stopped");
    served.option("--listen", given->listen, "Address and port; port 0 takes a free one")
        .type_name("ADDRESS:PORT")
        .show_default();
    served.flag("--allow-remote", given->allow_remote,
                "Permit an address that other machines can reach");
    served.when_chosen([&options, &work, given] {
        work = [&options, given](int output) {
            options.once();
            serve_at(options.segment.key_file, *given, output);
        };
    });
}

} // namespace halvo::mon
