#include "tools/mon/look/options_file.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "core/base/posix.h"
#include "halvo/queue.h"
#include "halvo/status.h"
#include "tools/frame/charset.h"
#include "tools/frame/files.h"
#include "tools/frame/output.h"

namespace halvo::mon {

using tools::kUsage;
using tools::ToolError;

namespace {

// The first word of a line; empty for a comment and for a special line.
std::string channel_of(const std::string &line) {
    const size_t begin = line.find_first_not_of(' ');
    if (begin == std::string::npos || line[begin] == '#') return {};
    const std::string word = line.substr(begin, line.find_first_of(" \r", begin) - begin);
    const bool special = word == "!TITLE" || word == "!HEADER" || word == "!MSG";
    return special ? std::string() : word;
}

// The file with all its names as they stand in the segment.
std::string converted(const std::string &content, const std::string &path, bool tell) {
    std::istringstream in(content);
    std::string out;
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        const std::string name = channel_of(line);
        if (!name.empty() && q_name2chnnl(name.c_str()) < 0) {
            const std::string euc_kr = tools::to_euc_kr(name).value_or(name);
            if (q_name2chnnl(euc_kr.c_str()) >= 0)
                line.replace(line.find(name), name.size(), euc_kr);
            else if (tell)
                std::fprintf(stderr, "halvo-mon: %s:%d: no channel named %s\n", path.c_str(),
                             number, name.c_str());
        }
        out += line + "\n";
    }
    return out;
}

} // namespace

void load_options(const std::string &path, bool tell) {
    const auto content = tools::read_file(path);
    if (!content)
        throw ToolError(kUsage,
                        path + ": cannot be read as a file of options, " + std::strerror(errno));
    // The printers take a path.
    const Descriptor file(memfd_create("options", MFD_CLOEXEC));
    const std::string text = converted(*content, path, tell);
    const bool written =
        file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const std::string copy = "/proc/self/fd/" + std::to_string(file.get());
    if (!written || q_load_print_options(copy.c_str()) < 0 || !qprtopts)
        throw ToolError(kUsage, path + ": cannot be read as a file of options");
}

} // namespace halvo::mon
