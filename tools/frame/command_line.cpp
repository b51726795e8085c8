#include "tools/frame/command_line.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iostream>

#include "tools/frame/output.h"

namespace halvo::tools {

struct Option::Parser {
    CLI::Option *option; // its command owns it
};

struct Command::Parser {
    std::shared_ptr<CLI::App> app;
    std::function<int(const std::string &)> answer{};         // to wrong usage
    std::vector<std::shared_ptr<Command::Parser>> commands{}; // of the program
};

Option Option::required() const {
    parser_->option->required();
    return *this;
}

Option Option::needs(const Option &other) const {
    parser_->option->needs(other.parser_->option);
    return *this;
}

Option Option::excludes(const Option &other) const {
    parser_->option->excludes(other.parser_->option);
    return *this;
}

Option Option::range(int least, int greatest) const {
    parser_->option->check(CLI::Range(least, greatest));
    return *this;
}

Option Option::range(double least, double greatest) const {
    parser_->option->check(CLI::Range(least, greatest));
    return *this;
}

Option Option::one_of(const std::vector<std::string> &words) const {
    parser_->option->check(CLI::IsMember(words));
    return *this;
}

Option Option::check(const std::function<std::string(const std::string &)> &fault_of) const {
    parser_->option->check(fault_of);
    return *this;
}

Option Option::duration(double least, double greatest) const {
    static const std::map<std::string, double> units{
        {"ms", 0.001}, {"s", 1}, {"m", 60}, {"h", 3600}};
    parser_->option
        ->transform(CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::CASE_INSENSITIVE, "TIME"))
        ->check(CLI::Range(least, greatest).description(""))
        ->type_name("TIME");
    return *this;
}

Option Option::type_name(const std::string &name) const {
    parser_->option->type_name(name);
    return *this;
}

Option Option::show_default() const {
    parser_->option->capture_default_str();
    return *this;
}

bool Option::given() const { return parser_->option->count() > 0; }

template <class Value>
Option Command::option(const std::string &names, Value &value, const std::string &what) const {
    return Option(std::make_shared<Option::Parser>(
        Option::Parser{parser_->app->add_option(names, value, what)}));
}

template Option Command::option(const std::string &, std::string &, const std::string &) const;
template Option Command::option(const std::string &, std::vector<std::string> &,
                                const std::string &) const;
template Option Command::option(const std::string &, int &, const std::string &) const;
template Option Command::option(const std::string &, double &, const std::string &) const;
template Option Command::option(const std::string &, int64_t &, const std::string &) const;
template Option Command::option(const std::string &, uint32_t &, const std::string &) const;
template Option Command::option(const std::string &, uint64_t &, const std::string &) const;

Option Command::flag(const std::string &names, bool &value, const std::string &what) const {
    return Option(std::make_shared<Option::Parser>(
        Option::Parser{parser_->app->add_flag(names, value, what)}));
}

void Command::when_chosen(const std::function<void()> &then) const { parser_->app->callback(then); }

void Command::answer_wrong_usage(const std::function<int(const std::string &)> &answer) const {
    parser_->answer = answer;
}

namespace {

// The program's options stand behind a command's own.
class WholeHelp : public CLI::Formatter {
public:
    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override {
        std::string help = CLI::Formatter::make_help(app, std::move(name), mode);
        if (app->get_parent()) help += "\nWith any command:" + make_groups(app->get_parent(), mode);
        return help;
    }
};

} // namespace

// Commands take over what is set here, at the time they are added.
Program::Program(const About &about)
    : Command(
          std::make_shared<Parser>(Parser{std::make_shared<CLI::App>(about.what, about.name)})) {
    CLI::App &app = *parser_->app;
    app.set_version_flag("--version", about.name + " " HALVOIPC_VERSION);
    app.footer(about.footer);
    if (about.commands != About::no_command)
        app.require_subcommand(about.commands == About::one_command ? 1 : 0, 1);
    if (about.options_with_any_command) {
        app.fallthrough();
        app.formatter(std::make_shared<WholeHelp>());
    }
}

Command Program::command(const std::string &name, const std::string &what) const {
    CLI::App *app = parser_->app->add_subcommand(name, what);
    parser_->commands.push_back(
        std::make_shared<Parser>(Parser{parser_->app->get_subcommand_ptr(app)}));
    return Command(parser_->commands.back());
}

std::optional<int> Program::parse(int argc, char **argv) const {
    CLI::App &app = *parser_->app;
    const auto told = [&](const std::string &fault) {
        for (const auto &command : parser_->commands)
            if (command->answer && app.got_subcommand(command->app.get()))
                return command->answer(fault);
        std::cerr << app.get_name() << ": " << fault << " (--help tells more)\n";
        return int{kUsage};
    };
    hold_standard_descriptors();
    try {
        app.parse(argc, argv);
        return std::nullopt;
    } catch (const CLI::Success &help_or_version) {
        app.exit(help_or_version);
        if (std::cout.flush()) return kDone;
        std::cerr << app.get_name() << ": standard output: " << std::strerror(errno) << "\n";
        return kFailed;
    } catch (const CLI::ParseError &fault) {
        // The parser asks for what is missing before it tells of a word that it does not know.
        const std::string unknown = CLI::detail::join(app.remaining(true), " ");
        return told(unknown.empty() ? fault.what() : "not expected here: " + unknown);
    } catch (const WrongUsage &fault) {
        return told(fault.what());
    }
}

std::string at_least_zero(const std::string &word) {
    const bool digits = word.find_first_not_of("0123456789") == std::string::npos;
    return !word.empty() && word.size() <= 18 && digits
               ? std::string()
               : "\"" + word + "\" is no whole number from 0 on";
}

} // namespace halvo::tools
