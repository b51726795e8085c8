#include "tools/frame/line_reader.h"

#include <unistd.h>

#include <cerrno>

namespace halvo::tools {

LineReader::Read LineReader::next(std::string &line) {
    for (;;) {
        const size_t feed = pending_.find('\n', searched_);
        if (feed != std::string::npos || (at_end_ && start_ < pending_.size())) {
            const size_t end = feed == std::string::npos ? pending_.size() : feed + 1;
            line.assign(pending_, start_, end - start_);
            start_ = searched_ = end;
            return Read::line;
        }
        if (at_end_) return Read::end;
        pending_.erase(0, start_);
        start_ = 0;
        searched_ = pending_.size();
        char chunk[65536];
        const ssize_t got = read(descriptor_, chunk, sizeof chunk);
        if (got < 0) return errno == EINTR ? Read::interrupted : Read::failed;
        if (got == 0) at_end_ = true;
        pending_.append(chunk, static_cast<size_t>(got));
    }
}

} // namespace halvo::tools
