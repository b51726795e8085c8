#include "tools/relay/base/log.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

#include "tools/frame/line_reader.h"
#include "tools/frame/program.h"
#include "tools/frame/text.h"

namespace halvo::relay {

namespace {

std::atomic<bool> json_lines{false};

const char *name_of(Level level) {
    static const char *const names[] = {"info", "warning", "error"};
    return names[static_cast<int>(level)];
}

std::string time_text() {
    timeval now{};
    gettimeofday(&now, nullptr);
    const time_t seconds = now.tv_sec;
    tm parts{};
    gmtime_r(&seconds, &parts);
    char day[32], text[48];
    std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text, sizeof text, "%s.%03dZ", day, static_cast<int>(now.tv_usec / 1000));
    return text;
}

// Its bytes may be of any charset.
std::string quoted(const std::string &text) { return '"' + tools::json_escaped(text, true) + '"'; }

} // namespace

void log_as_json(bool json) { json_lines = json; }

void log(Level level, const std::string &route, const char *event, const std::string &text) {
    std::string line;
    if (json_lines) {
        line = "{\"time\":\"" + time_text() + "\",\"level\":\"" + name_of(level) + "\"";
        if (!route.empty()) line += ",\"route\":" + quoted(route);
        line += std::string(",\"event\":\"") + event + "\",\"text\":" + quoted(text) + "}\n";
    } else {
        line = time_text() + " " + name_of(level) + " " + (route.empty() ? "" : route + " ") +
               event + ": " + text;
        for (char &c : line)
            if (static_cast<unsigned char>(c) < 0x20) c = ' ';
        line += "\n";
    }
    // One write, so that lines of several threads do not mix.
    const ssize_t ignored = write(STDERR_FILENO, line.data(), line.size());
    static_cast<void>(ignored);
}

void log_library_lines() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || dup2(ends[1], STDOUT_FILENO) < 0)
        throw tools::ToolError(tools::kFailed, "standard output: no pipe");
    close(ends[1]);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::thread([from = ends[0]] {
        tools::LineReader lines(from);
        std::string line;
        for (;;) {
            const auto read = lines.next(line);
            if (read == tools::LineReader::Read::interrupted) continue;
            if (read != tools::LineReader::Read::line) return;
            while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
            const bool ornament = line.rfind("/*", 0) == 0;
            if (!line.empty() && !ornament) log(Level::info, "", "library", line);
        }
    }).detach();
}

} // namespace halvo::relay
