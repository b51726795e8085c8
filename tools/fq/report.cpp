#include "tools/fq/report.h"

#include <cinttypes>
#include <vector>

#include "tools/fq/files.h"

namespace halvo::tools {

namespace {

struct Count {
    int64_t items = 0;
    int64_t bytes = 0; // of data
    void add(const Finding &finding) {
        ++items;
        bytes += finding.length;
    }
};

// Readable items from the reader's position on.
Count backlog(const QueueFiles &queue) {
    Count count;
    for_each_waiting(queue, [&](DataReader &, const Finding &finding) {
        count.add(finding);
        return true;
    });
    return count;
}

// What stands behind the writer's saved position: of an open or a dead transaction.
Count uncommitted(const std::string &path, const std::vector<DataFile> &files,
                  const SavedPosition &writer, int64_t &bytes_on_disk) {
    Count count;
    bytes_on_disk = 0;
    if (!writer.found) return count;
    for (const DataFile &file : files)
        if (file.order == writer.at.order && file.size > writer.at.offset)
            bytes_on_disk = file.size - writer.at.offset;
    if (bytes_on_disk > 0)
        DataReader(path, writer.at.order).visit(writer.at.offset, [&](const Finding &finding) {
            if (finding.kind == Finding::pending) count.add(finding);
            return true;
        });
    return count;
}

// A position in a file that is not there, though an item was read or written there once. The next
// file of a writer that has ended one, and the first of an empty queue, are still to be made.
bool names_no_file(const QueueFiles &queue, const SavedPosition &saved) {
    return saved.found && !queue.has(saved.at.order) &&
           (saved.at.offset > 0 || queue.next_file(saved.at.order) >= 0);
}

std::string position_text(const QueueFiles &queue, const SavedPosition &saved) {
    std::string line = saved.damaged ? "damaged" : "none saved";
    if (saved.found)
        line = text("file %09d offset %d", static_cast<int>(saved.at.order),
                    static_cast<int>(saved.at.offset));
    if (names_no_file(queue, saved)) line += " (no such file)";
    if (saved.torn) line += text(" (%d bytes of a torn record)", static_cast<int>(saved.torn));
    return line;
}

std::string position_json(const SavedPosition &saved) {
    if (!saved.found) return "null";
    return text("{\"file\":%d,\"offset\":%d}", static_cast<int>(saved.at.order),
                static_cast<int>(saved.at.offset));
}

// Behind the writer's saved position nothing is committed, so nothing there can be damaged.
bool is_committed(const SavedPosition &writer, int32_t order, int64_t offset) {
    return !writer.found || order != writer.at.order || offset < writer.at.offset;
}

// What is wrong with something found where only committed items belong; null when nothing is.
const char *fault_of(const Finding &finding) {
    if (finding.kind == Finding::pending) return "not committed, but the writer has gone on";
    return finding.kind == Finding::item || finding.kind == Finding::end ? nullptr : finding.reason;
}

struct Verified {
    Count good, pending;
    int64_t damaged = 0;
    std::string lines, objects; // of the damage, as text and as JSON

    void add(int32_t order, int64_t offset, const char *fault) {
        ++damaged;
        lines += text("file %09d offset %" PRId64 ": %s\n", static_cast<int>(order), offset, fault);
        objects +=
            text("%s{\"file\":%d,\"offset\":%" PRId64 ",\"reason\":%s}", objects.empty() ? "" : ",",
                 static_cast<int>(order), offset, quoted(fault).c_str());
    }
    void add(const char *side, const SavedPosition &saved, bool no_file) {
        if (saved.torn)
            lines += text("the %s's position log ends with %d bytes of a torn record\n", side,
                          static_cast<int>(saved.torn));
        if (!saved.damaged && !no_file) return;
        ++damaged;
        lines += saved.damaged
                     ? text("the %s's saved position is damaged\n", side)
                     : text("the %s's saved position names file %09d, which is not there\n", side,
                            static_cast<int>(saved.at.order));
        objects += text("%s{\"position\":\"%s\"}", objects.empty() ? "" : ",", side);
    }
};

void verify_file(const std::string &path, const DataFile &file, const SavedPosition &writer,
                 Verified &verified) {
    const int32_t order = file.order;
    int64_t behind = 0; // the last thing found
    bool ended = false;
    DataReader(path, order).visit(0, [&](const Finding &finding) {
        const bool committed = is_committed(writer, order, finding.offset);
        const char *fault = fault_of(finding);
        if (finding.kind == Finding::item) verified.good.add(finding);
        if (finding.kind == Finding::pending && !committed) verified.pending.add(finding);
        if (committed && fault) verified.add(order, finding.offset, fault);
        behind = finding.offset + finding.length + FQ_ITEM_EXTRA;
        ended = finding.kind == Finding::end;
        return true;
    });
    // Readers go on without an end item when the file has passed its limit.
    if (!writer.found) return;
    if (order != writer.at.order && !ended && behind <= fq::kFileLimit)
        verified.add(order, file.size, "no end item, but the writer has gone on");
    if (order == writer.at.order && file.size < writer.at.offset)
        verified.add(order, file.size, "the file ends before the writer's saved position");
}

} // namespace

std::string stat_report(const std::string &path, bool json) {
    const QueueFiles queue(path);
    const auto &[name, files, writer, reader] = queue;
    const Count waiting = backlog(queue);
    int64_t tail = 0;
    const Count pending = uncommitted(path, files, writer, tail);
    if (json) {
        std::string list;
        for (const DataFile &file : files)
            list += text("%s{\"file\":%d,\"bytes\":%" PRId64 "}", list.empty() ? "" : ",",
                         static_cast<int>(file.order), file.size);
        return text("{\"queue\":%s,\"writer\":%s,\"reader\":%s,"
                    "\"backlog\":{\"items\":%" PRId64 ",\"bytes\":%" PRId64 "},"
                    "\"uncommitted\":{\"items\":%" PRId64 ",\"bytes\":%" PRId64 ",\"tail\":%" PRId64
                    "},\"files\":[%s]}\n",
                    quoted(path).c_str(), position_json(writer).c_str(),
                    position_json(reader).c_str(), waiting.items, waiting.bytes, pending.items,
                    pending.bytes, tail, list.c_str());
    }
    std::string lines = text("queue        %s\nwriter       %s\nreader       %s\n"
                             "backlog      %" PRId64 " items, %" PRId64 " bytes\n"
                             "uncommitted  %" PRId64 " items, %" PRId64 " bytes on disk\n",
                             path.c_str(), position_text(queue, writer).c_str(),
                             position_text(queue, reader).c_str(), waiting.items, waiting.bytes,
                             pending.items, tail);
    for (const DataFile &file : files)
        lines +=
            text("file         %09d  %" PRId64 " bytes\n", static_cast<int>(file.order), file.size);
    return lines;
}

std::string verify_report(const std::string &path, bool json, bool &sound) {
    const QueueFiles queue(path);
    const auto &[name, files, writer, reader] = queue;
    Verified verified;
    for (const DataFile &file : files) verify_file(path, file, writer, verified);
    verified.add("writer", writer, names_no_file(queue, writer));
    verified.add("reader", reader, names_no_file(queue, reader));
    sound = verified.damaged == 0;
    if (json)
        return text("{\"queue\":%s,\"items\":%" PRId64 ",\"bytes\":%" PRId64
                    ",\"uncommitted\":%" PRId64 ",\"torn\":{\"writer\":%" PRId64
                    ",\"reader\":%" PRId64 "},\"damaged\":[%s]}\n",
                    quoted(path).c_str(), verified.good.items, verified.good.bytes,
                    verified.pending.items, writer.torn, reader.torn, verified.objects.c_str());
    return verified.lines + text("%" PRId64 " items, %" PRId64 " bytes, %" PRId64
                                 " uncommitted items, %" PRId64 " damaged places\n",
                                 verified.good.items, verified.good.bytes, verified.pending.items,
                                 verified.damaged);
}

std::string obstacle(const std::string &path) {
    const SavedPosition writer = saved_position(path, 'w');
    const SavedPosition reader = saved_position(path, 'r');
    std::string found;
    if (!writer.found || !reader.found || !is_committed(writer, reader.at.order, reader.at.offset))
        return found;
    DataReader(path, reader.at.order).visit(reader.at.offset, [&](const Finding &finding) {
        const char *fault = fault_of(finding);
        if (fault)
            found = text("file %09d offset %" PRId64 ": %s", static_cast<int>(reader.at.order),
                         finding.offset, fault);
        return false;
    });
    return found;
}

} // namespace halvo::tools
