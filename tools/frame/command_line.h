// The command line of a program: the words that it takes, what it says about them, and the exit status
// that the reading of them may end with. Programs include this, not the parser's own headers: those
// take many seconds to compile.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace halvo::tools {

// An option, a flag, or a word at its place (its name has no dash). Copies are the same option. Each
// rule returns the option, for more rules; words that break one are wrong usage.
class Option {
public:
    Option required() const;
    Option needs(const Option &other) const;    // may be given only with the other one
    Option excludes(const Option &other) const; // may not be given with the other one
    Option range(int least, int greatest) const;
    Option range(double least, double greatest) const;
    Option one_of(const std::vector<std::string> &words) const;
    // fault_of(word): why the word is refused; empty when it is not.
    Option check(const std::function<std::string(const std::string &)> &fault_of) const;
    // For a value in seconds within these: the word is a number with or without ms, s, m or h.
    Option duration(double least, double greatest) const;

    // For --help: the kind of the value, in place of that of its type, and what the value is now.
    Option type_name(const std::string &name) const;
    Option show_default() const;

    bool given() const; // known when all words are read

private:
    friend class Command;
    struct Parser;
    explicit Option(std::shared_ptr<Parser> parser) : parser_(std::move(parser)) {}
    std::shared_ptr<Parser> parser_;
};

// A command of a program, or the program itself. Copies are the same command.
class Command {
public:
    // `names` as "-k,--key", or one word for a word at its place. The value keeps what it has when the
    // option is not given, and stays the caller's, who keeps it until the words are read. For
    // std::string, std::vector<std::string>, int, double, and int64_t, uint32_t and uint64_t.
    template <class Value>
    Option option(const std::string &names, Value &value, const std::string &what) const;
    // The names behind a ! store false: "--utf8,!--no-utf8".
    Option flag(const std::string &names, bool &value, const std::string &what) const;

    // Called when all words are read and all values stored: of the command that was chosen, then of
    // the program. May throw WrongUsage. The last one that was set counts.
    void when_chosen(const std::function<void()> &then) const;
    // How wrong usage of a program's command is told, in place of a line on standard error;
    // answer(fault) returns the exit status.
    void answer_wrong_usage(const std::function<int(const std::string &)> &answer) const;

private:
    friend class Program;
    struct Parser;
    explicit Command(std::shared_ptr<Parser> parser) : parser_(std::move(parser)) {}
    std::shared_ptr<Parser> parser_;
};

// What the rules of the single options cannot tell: words that do not go together.
class WrongUsage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// What a program says of itself, and how its words are ordered.
struct About {
    enum Commands { no_command, one_command, one_or_no_command };

    std::string name;               // --help and --version tell it
    std::string what;               // the head of --help
    std::string footer{};           // its foot, in the help of each command too
    Commands commands = no_command; // how many the words are to have
    // The program's own options may stand behind a command too, and its help shows them.
    bool options_with_any_command = false;
};

class Program : public Command {
public:
    explicit Program(const About &about); // with --help and --version
    Command command(const std::string &name, const std::string &what) const;

    // Nothing when the words were read and the program is to go on. Else the exit status to end with:
    // kDone when help or version were asked for, which have been printed (kFailed when they could not
    // be); kUsage, or what answer_wrong_usage says, when the words were wrong, which has been told.
    std::optional<int> parse(int argc, char **argv) const;
};

// A check for whole numbers from 0 on. (The parser's own answers with all digits of the greatest number
// there is.)
std::string at_least_zero(const std::string &word);

} // namespace halvo::tools
