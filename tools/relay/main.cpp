// halvo-relay: carries messages between the channels and file queues of this machine and a broker.
#include <functional>

#include "tools/frame/command_line.h"
#include "tools/relay/relay.h"

namespace {

constexpr char kFooter[] = R"(Exit status:
  0  done; check found no faults; run ended on SIGTERM or SIGINT with nothing in flight
  1  check found faults
  2  wrong usage, configuration or state file

Signals of run: SIGTERM and SIGINT end it, SIGHUP reads the configuration again.

Examples:
  halvo-relay check --declare /etc/halvo/relay.toml
  halvo-relay run /etc/halvo/relay.toml
  halvo-relay status /etc/halvo/relay.toml

halvo-relay(1) explains the configuration.)";

} // namespace

int main(int argc, char **argv) {
    using halvo::tools::Command;
    const halvo::tools::Program program(
        {.name = "halvo-relay",
         .what = "Carries the messages of channels and file queues into a broker and out again.",
         .footer = kFooter,
         .commands = halvo::tools::About::one_command});
    std::string path;
    bool declare = false, as_metrics = false;
    std::function<int()> work;
    const auto add = [&](const char *name, const char *what, const std::function<int()> &does) {
        Command command = program.command(name, what);
        command.option("CONFIG", path, "Configuration, a TOML file").required();
        command.when_chosen([&work, does] { work = does; });
        return command;
    };
    add("run", "Runs all routes", [&] { return halvo::relay::run(path); });
    add("check", "Looks at broker, queues, channels and rights, and changes nothing", [&] {
        return halvo::relay::check(path, declare);
    }).flag("--declare", declare, "Make the queues that the broker does not have");
    add("status", "Shows the figures of all routes", [&] {
        return halvo::relay::show_status(path, as_metrics);
    }).flag("--metrics", as_metrics, "As Prometheus text");
    if (const auto ended = program.parse(argc, argv)) return *ended;
    return work();
}
