#include "tools/fq/report.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "tools/fq/inspect.h"
#include "tools/frame/program.h"

namespace halvo::tools {

namespace {

using fq::Position;

[[gnu::format(printf, 1, 2)]] std::string text(const char *format, ...) {
    va_list values;
    va_start(values, format);
    char *made = nullptr;
    const int length = vasprintf(&made, format, values);
    va_end(values);
    std::string result(length > 0 ? made : "");
    if (length >= 0) free(made);
    return result;
}

std::string quoted(const std::string &bytes) {
    std::string json = "\"";
    for (const char c : bytes) {
        if (c == '"' || c == '\\')
            json += std::string("\\") + c;
        else if (static_cast<unsigned char>(c) < 0x20)
            json += text("\\u%04x", static_cast<unsigned>(c));
        else
            json += c;
    }
    return json + "\"";
}

struct Count {
    int64_t items = 0;
    int64_t bytes = 0; // of data
    void add(const Finding &finding) {
        ++items;
        bytes += finding.length;
    }
};

// Where the reader goes on: its saved position, or the start of the first file.
Position reader_start(const SavedPosition &reader, const std::vector<DataFile> &files) {
    if (reader.found) return reader.at;
    return {files.empty() ? 0 : files.front().order, 0};
}

bool exists(const std::vector<DataFile> &files, int32_t order) {
    for (const DataFile &file : files)
        if (file.order == order) return true;
    return false;
}

// Readable items from the reader's position on, file by file as the reader would go.
Count backlog(const std::string &path, const std::vector<DataFile> &files, Position at) {
    Count count;
    for (size_t visited = 0; visited < files.size() && exists(files, at.order); ++visited) {
        bool ended = false;
        inspect_file(path, at.order, at.offset, [&](const Finding &finding) {
            ended = finding.kind == Finding::end;
            if (finding.kind == Finding::item) count.add(finding);
            return !ended && finding.kind != Finding::pending;
        });
        if (!ended) break;
        at = {fq::next_order_of_commit(at.order), 0};
    }
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
        inspect_file(path, writer.at.order, writer.at.offset, [&](const Finding &finding) {
            if (finding.kind == Finding::pending) count.add(finding);
            return true;
        });
    return count;
}

std::string position_text(const SavedPosition &saved) {
    std::string line = saved.damaged ? "damaged" : "none saved";
    if (saved.found)
        line = text("file %09d offset %d", static_cast<int>(saved.at.order),
                    static_cast<int>(saved.at.offset));
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
    void add(const char *side, const SavedPosition &saved) {
        if (saved.torn)
            lines += text("the %s's position log ends with %d bytes of a torn record\n", side,
                          static_cast<int>(saved.torn));
        if (!saved.damaged) return;
        ++damaged;
        lines += text("the %s's saved position is damaged\n", side);
        objects += text("%s{\"position\":\"%s\"}", objects.empty() ? "" : ",", side);
    }
};

void verify_file(const std::string &path, const DataFile &file, const SavedPosition &writer,
                 Verified &verified) {
    const int32_t order = file.order;
    int64_t behind = 0; // the last thing found
    bool ended = false;
    inspect_file(path, order, 0, [&](const Finding &finding) {
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

// What is on disk of a queue; throws ToolError when that is nothing.
struct Queue {
    std::vector<DataFile> files;
    SavedPosition writer, reader;
    explicit Queue(const std::string &path)
        : files(data_files(path)), writer(saved_position(path, 'w')),
          reader(saved_position(path, 'r')) {
        if (files.empty() && !writer.found && !reader.found)
            throw ToolError(kUsage, path + ": no queue of that name");
    }
};

} // namespace

std::string stat_report(const std::string &path, bool json) {
    const auto [files, writer, reader] = Queue(path);
    const Count waiting = backlog(path, files, reader_start(reader, files));
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
    std::string lines =
        text("queue        %s\nwriter       %s\nreader       %s\n"
             "backlog      %" PRId64 " items, %" PRId64 " bytes\n"
             "uncommitted  %" PRId64 " items, %" PRId64 " bytes on disk\n",
             path.c_str(), position_text(writer).c_str(), position_text(reader).c_str(),
             waiting.items, waiting.bytes, pending.items, tail);
    for (const DataFile &file : files)
        lines +=
            text("file         %09d  %" PRId64 " bytes\n", static_cast<int>(file.order), file.size);
    return lines;
}

std::string verify_report(const std::string &path, bool json, bool &sound) {
    const auto [files, writer, reader] = Queue(path);
    Verified verified;
    for (const DataFile &file : files) verify_file(path, file, writer, verified);
    verified.add("writer", writer);
    verified.add("reader", reader);
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
    inspect_file(path, reader.at.order, reader.at.offset, [&](const Finding &finding) {
        const char *fault = fault_of(finding);
        if (fault)
            found = text("file %09d offset %" PRId64 ": %s", static_cast<int>(reader.at.order),
                         finding.offset, fault);
        return false;
    });
    return found;
}

} // namespace halvo::tools
