// halvo-fq peek and dump: items as they lie on disk. Nothing is locked, nothing is consumed.
#include <cinttypes>

#include "tools/fq/commands.h"
#include "tools/fq/files.h"
#include "tools/fq/report.h"

namespace halvo::tools {

namespace {

constexpr size_t kBlock = size_t{1} << 16;

// Output in blocks.
class Out {
public:
    Out(int descriptor) : descriptor_(descriptor) {}
    void add(const std::string &bytes) {
        text_ += bytes;
        if (text_.size() >= kBlock) flush();
    }
    void flush() {
        write_out(descriptor_, "standard output", text_);
        text_.clear();
    }

private:
    int descriptor_;
    std::string text_;
};

const char *name_of(Finding::Kind kind) {
    switch (kind) {
    case Finding::item:
        return "readable";
    case Finding::pending:
        return "uncommitted";
    case Finding::end:
        return "end";
    case Finding::incomplete:
        return "incomplete";
    default:
        return "damaged";
    }
}

bool holds_data(const Finding &finding) {
    return finding.kind == Finding::item || finding.kind == Finding::pending;
}

} // namespace

void peek(const Options &options, int standard_output, Progress &progress) {
    const QueueFiles queue(options.queue);
    Out out(standard_output);
    for_each_waiting(queue, [&](DataReader &file, const Finding &finding) {
        out.add(file.data(finding) + (options.keep_newline ? "" : "\n"));
        progress.add(1, finding.length);
        return !stop_signal() && (!options.most || progress.messages() < options.most);
    });
    out.flush();
}

void dump(const Options &options, int standard_output, Progress &) {
    const QueueFiles queue(options.queue);
    Out out(standard_output);
    const char *separator = "";
    if (options.json) out.add("{\"queue\":" + quoted(options.queue) + ",\"items\":[");
    for (const DataFile &file : queue.files) {
        DataReader reader(options.queue, file.order);
        reader.visit(0, [&](const Finding &finding) {
            const std::string data = holds_data(finding) ? reader.data(finding) : "";
            const auto order = static_cast<int>(file.order);
            if (options.json)
                out.add(text("%s\n{\"file\":%d,\"offset\":%" PRId64 ",\"state\":\"%s\","
                             "\"stamp\":%u,\"length\":%u,\"data\":%s}",
                             separator, order, finding.offset, name_of(finding.kind), finding.stamp,
                             finding.length, quoted_bytes(data).c_str()));
            else
                out.add(text("%09d %9" PRId64 " %-11s %10u  ", order, finding.offset,
                             name_of(finding.kind), finding.length) +
                        printable(data) + "\n");
            separator = ",";
            return !stop_signal();
        });
    }
    if (options.json) out.add("\n]}\n");
    out.flush();
}

void stat(const Options &options, int standard_output, Progress &) {
    write_out(standard_output, "standard output", stat_report(options.queue, options.json));
}

void verify(const Options &options, int standard_output, Progress &) {
    bool sound = true;
    const std::string report = verify_report(options.queue, options.json, sound);
    write_out(standard_output, "standard output", report);
    if (!sound) throw ToolError(kFailed, options.queue + ": damaged");
}

} // namespace halvo::tools
