// A real terminal for a program under test: a tmux server of its own, which dies with the test.
#pragma once

#include <unistd.h>

#include <string>

#include "tests/support/peer.h"
#include "tests/support/program.h"

namespace halvo::test {

class Terminal {
public:
    // `directory` takes the socket. The shell's prompt is "ready$".
    Terminal(const std::string &directory, int columns, int rows)
        : socket_(directory + "/tmux"), server_([&] {
              setenv("LC_ALL", "C.UTF-8", 1);
              const ScratchFile nowhere; // or its descriptors keep the test's caller waiting
              const int fd = nowhere.fd();
              return become({program(), "-D", "-u", "-S", socket_, "-f", "/dev/null"}, fd, fd, fd);
          }) {
        comes_true([&] { return access(socket_.c_str(), F_OK) == 0; });
        tmux({"new-session", "-d", "-x", std::to_string(columns), "-y", std::to_string(rows),
              "env PS1='ready$ ' sh"});
        wait_for("ready$");
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;
    ~Terminal() { tmux({"kill-server"}); }

    static const char *program() { return "/usr/bin/tmux"; }
    static bool available() { return access(program(), X_OK) == 0; }

    void type(const std::string &text) const { tmux({"send-keys", "-l", text}); }
    void press(const std::string &key) const { tmux({"send-keys", key}); }
    void run(const std::string &command) const {
        type(command);
        press("Enter");
    }
    void resize(int columns, int rows) const {
        tmux({"resize-window", "-x", std::to_string(columns), "-y", std::to_string(rows)});
    }

    // The text on the screen, with its escapes when asked for; blanks at the ends of lines left out.
    std::string screen(bool escapes = false) const {
        return tmux({"capture-pane", "-p", escapes ? "-e" : "-p"});
    }
    bool shows(const std::string &text) const { return screen().find(text) != std::string::npos; }
    // True when the text stands there within twenty seconds.
    bool wait_for(const std::string &text) const {
        if (comes_true([&] { return shows(text); })) return true;
        ADD_FAILURE() << "not on the screen: " << text << '\n' << screen();
        return false;
    }
    std::string state(const std::string &format) const {
        return tmux({"display-message", "-p", format});
    }

private:
    std::string tmux(std::vector<std::string> words) const {
        words.insert(words.begin(), {program(), "-u", "-S", socket_});
        return run_program(words).out;
    }

    std::string socket_;
    Peer server_;
};

} // namespace halvo::test
