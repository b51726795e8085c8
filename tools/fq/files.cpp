#include "tools/fq/files.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "tools/frame/program.h"

namespace halvo::tools {

QueueFiles::QueueFiles(const std::string &queue_path)
    : path(queue_path), files(data_files(path)), writer(saved_position(path, 'w')),
      reader(saved_position(path, 'r')) {
    if (files.empty() && !writer.found && !reader.found)
        throw ToolError(kUsage, path + ": no queue of that name");
}

bool QueueFiles::has(int32_t order) const {
    const auto by_order = [](const DataFile &a, const DataFile &b) { return a.order < b.order; };
    return std::binary_search(files.begin(), files.end(), DataFile{order, 0}, by_order);
}

int32_t QueueFiles::next_file(int32_t order) const {
    int32_t nearest = -1;
    for (const DataFile &file : files)
        if (fq::comes_after(order, file.order) &&
            (nearest == -1 || fq::comes_after(file.order, nearest)))
            nearest = file.order;
    return nearest;
}

void for_each_waiting(const QueueFiles &queue,
                      const std::function<bool(DataReader &, const Finding &)> &visit) {
    fq::Position at = queue.reader.at;
    if (!queue.reader.found) at = {queue.files.empty() ? 0 : queue.files.front().order, 0};
    for (size_t visited = 0; visited < queue.files.size(); ++visited) {
        if (!queue.has(at.order)) at = {queue.next_file(at.order), 0};
        if (at.order < 0) return;
        bool ended = false, left = false;
        int64_t behind = at.offset; // the last item
        DataReader file(queue.path, at.order);
        file.visit(at.offset, [&](const Finding &finding) {
            ended = finding.kind == Finding::end;
            left = finding.kind != Finding::item || !visit(file, finding);
            behind += finding.length + int64_t{FQ_ITEM_EXTRA};
            return !left;
        });
        const int32_t next = fq::next_order_of_commit(at.order);
        // A file that has passed its limit needs no end item when the writer has gone on.
        ended = ended || (!left && behind > fq::kFileLimit && queue.has(next));
        if (!ended) return;
        at = {next, 0};
    }
}

void remove_consumed(const std::string &path, int32_t began, int32_t ended) {
    if (began == ended || fq::next_order_of_commit(began) == ended) return;
    for (const DataFile &file : data_files(path))
        if (fq::comes_after(began, file.order) && fq::comes_after(file.order, ended))
            unlink(fq::data_file(path.c_str(), file.order).text);
}

std::string quoted(const std::string &text) { return '"' + json_escaped(text, false) + '"'; }
std::string quoted_bytes(const std::string &bytes) { return '"' + json_escaped(bytes, true) + '"'; }

std::string printable(const std::string &bytes) {
    std::string shown = bytes;
    for (char &c : shown)
        if (c < 0x20 || c > 0x7e) c = '.';
    return shown;
}

} // namespace halvo::tools
