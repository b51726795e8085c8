// halvo-qm: makes, lists, checks and removes a segment, for development and tests.
#include <grp.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

#include "tools/frame/charset.h"
#include "tools/frame/command_line.h"
#include "tools/frame/program.h"
#include "tools/frame/text.h"
#include "tools/qm/config.h"
#include "tools/qm/repair.h"
#include "tools/qm/segment.h"

namespace {

using halvo::tools::aligned;
using halvo::tools::Command;
using halvo::tools::for_locale;
using halvo::tools::Program;
using halvo::tools::text;

enum ExitStatus { kDone = 0, kRefused = 1, kFailed = 2 };

constexpr char kFooter[] = R"(Exit status:
  0  done; check found the segment sound
  1  create found a segment standing, check found faults, remove found nothing
  2  wrong usage or configuration, or the system refused

Examples:
  halvo-qm create gateway.toml --key /tmp/halvo.key
  halvo-qm list --key /tmp/halvo.key
  halvo-qm check --key /tmp/halvo.key && echo sound
  halvo-qm check --repair --key /tmp/halvo.key
  halvo-qm remove --key /tmp/halvo.key

halvo-toml(5) explains the configuration.)";

struct Arguments {
    std::string config;
    std::string key_file;
    bool replace = false;
    bool repair = false;
    std::string mode = "0660", group;
};

// Names in it are the segment's.
void complain(const std::string &message) {
    std::fprintf(stderr, "halvo-qm: %s\n", for_locale(message).c_str());
}

// A name, or a number for a group without one.
gid_t group_of(const std::string &word) {
    if (word.empty()) return halvo::qm::kOwnGroup;
    if (const struct group *found = getgrnam(word.c_str())) return found->gr_gid;
    if (word.size() > 9 || word.find_first_not_of("0123456789") != std::string::npos)
        throw halvo::qm::Error("there is no group named " + word);
    return static_cast<gid_t>(std::stoul(word));
}

int run_create(const Arguments &arguments) {
    const halvo::qm::Access access{static_cast<mode_t>(std::stoul(arguments.mode, nullptr, 8)),
                                   group_of(arguments.group)};
    const halvo::qm::SegmentPlan plan = halvo::qm::load_config(arguments.config);
    try {
        halvo::qm::create(plan, arguments.key_file, arguments.replace, access);
    } catch (const halvo::qm::Standing &standing) {
        complain(std::string(standing.what()) + "; --replace removes it first");
        return kRefused;
    }
    return kDone;
}

int run_check(const Arguments &arguments) {
    if (arguments.repair) {
        const halvo::tools::LibraryMessages messages;
        for (const std::string &line : halvo::qm::repair(arguments.key_file))
            halvo::tools::write_out(messages.standard_output(), "standard output",
                                    for_locale(line) + "\n");
    }
    const std::vector<std::string> faults = halvo::qm::check(arguments.key_file);
    for (const std::string &fault : faults) complain(fault);
    return faults.empty() ? kDone : kRefused;
}

int run_remove(const Arguments &arguments) {
    if (halvo::qm::remove(arguments.key_file)) return kDone;
    complain(text("key file %s: nothing stands there", arguments.key_file.c_str()));
    return kRefused;
}

using Row = std::vector<std::string>;

Row row_of(size_t number, const halvo::qm::ChannelInfo &channel) {
    // A process id stays in the channel after its process has gone; a star tells who is there now.
    const auto end = [](int32_t pid, bool held) {
        return pid == 0 ? std::string("-") : text("%d%s", static_cast<int>(pid), held ? "*" : "");
    };
    const auto name = [](const std::string &field) { return field.empty() ? "-" : field; };
    return {text("%zu", number),
            name(channel.name),
            std::string(1, channel.type),
            text("%u", channel.slots),
            text("%u", channel.slot_size),
            text("%jd", intmax_t{channel.waiting}),
            end(channel.writer, channel.writing),
            name(channel.writer_name),
            end(channel.reader, channel.reading),
            name(channel.reader_name),
            channel.rate_limit > 0 ? text("%d", static_cast<int>(channel.rate_limit)) : "-"};
}

int run_list(const Arguments &arguments) {
    std::vector<Row> table{{"NUMBER", "NAME", "TYPE", "SLOTS", "SLOT-SIZE", "WAITING", "WRITER",
                            "WRITER-NAME", "READER", "READER-NAME", "RATE-LIMIT"}};
    const std::vector<halvo::qm::ChannelInfo> channels = halvo::qm::list(arguments.key_file);
    for (size_t i = 0; i < channels.size(); ++i) table.push_back(row_of(i, channels[i]));
    // Widths are EUC-KR's, whose bytes are columns.
    std::fputs(for_locale(aligned(table)).c_str(), stdout);
    if (std::fflush(stdout) == 0) return kDone;
    complain("cannot write the list");
    return kFailed;
}

std::string fault_of_mode(const std::string &mode) {
    const bool octal = !mode.empty() && mode.size() <= 4 &&
                       mode.find_first_not_of("01234567") == std::string::npos;
    return octal ? "" : "'" + mode + "' is not an octal number";
}

using Run = std::function<int(const Arguments &)>;

void add_commands(const Program &program, Arguments &arguments, Run &run) {
    const auto command = [&](const char *name, const char *what,
                             int (*function)(const Arguments &)) {
        Command added = program.command(name, what);
        added
            .option("-k,--key", arguments.key_file,
                    "Key file; two more beside it are named FILE.post and FILE.req")
            .required()
            .type_name("FILE");
        added.when_chosen([&run, function] { run = function; });
        return added;
    };
    const Command create = command("create", "Make a segment from a configuration", run_create);
    create.option("CONFIG", arguments.config, "TOML file with the channels")
        .required()
        .type_name("");
    create.flag("--replace", arguments.replace, "Remove first what stands under the key");
    create.option("--mode", arguments.mode, "Permissions of segment and semaphores, octal")
        .check(fault_of_mode)
        .show_default();
    create
        .option("--group", arguments.group,
                "Group that the group's permissions are for; your own without")
        .type_name("NAME");
    command("list", "Show the channels; * marks a process that holds its end now", run_list);
    command("check", "Look for faults in a segment", run_check)
        .flag("--repair", arguments.repair,
              "Correct first what dead processes left, at ends that nobody holds");
    command("remove", "Remove segment, semaphores and empty key files", run_remove);
}

} // namespace

int main(int argc, char **argv) {
    Arguments arguments;
    Run run;
    const Program program(
        {.name = "halvo-qm",
         .what = "Makes, lists, checks and removes a queue segment with its semaphores.",
         .footer = kFooter,
         .commands = halvo::tools::About::one_command});
    add_commands(program, arguments, run);
    if (const auto ended = program.parse(argc, argv)) return *ended;
    try {
        return run(arguments);
    } catch (const std::exception &error) {
        complain(error.what());
        return kFailed;
    }
}
