#include "tools/fq/inspect.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/posix.h"
#include "tools/frame/program.h"

namespace halvo::tools {

namespace {

using namespace halvo::fq;

[[noreturn]] void fail(const std::string &name) {
    throw ToolError(kUsage, name + ": " + std::strerror(errno));
}

int64_t size_of(const Descriptor &file) {
    struct stat found {};
    return fstat(file.get(), &found) == 0 ? int64_t{found.st_size} : -1;
}

// A file's bytes through a window, so that a file of any size is read in pieces.
class Window {
public:
    explicit Window(const std::string &name)
        : name_(name), file_(open_file(name.c_str(), O_RDONLY)) {
        if (!file_ && errno == ENOENT) return;
        if (!file_ || (size_ = size_of(file_)) < 0) fail(name_);
    }
    int64_t size() const { return size_; }

    // Up to `count` bytes from an offset; less at the end of the file.
    std::string_view bytes(int64_t offset, size_t count) {
        const int64_t end = begin_ + static_cast<int64_t>(window_.size());
        if (offset < begin_ || offset + static_cast<int64_t>(count) > end) load(offset, count);
        const auto start = static_cast<size_t>(offset - begin_);
        return std::string_view(window_).substr(std::min(start, window_.size()), count);
    }

private:
    void load(int64_t offset, size_t count) {
        constexpr size_t kStep = size_t{1} << 20;
        window_.resize(std::max(count, kStep));
        const ssize_t got = pread(file_.get(), window_.data(), window_.size(), offset);
        if (got < 0) fail(name_);
        window_.resize(static_cast<size_t>(got));
        begin_ = offset;
    }

    std::string name_;
    Descriptor file_;
    int64_t size_ = 0;
    std::string window_;
    int64_t begin_ = 0;
};

Finding look_at(Window &file, int64_t offset) {
    const std::string_view bytes = file.bytes(offset, kHeaderSize);
    if (bytes.size() < kHeaderSize) return {Finding::incomplete, offset, 0, "a part of a header"};
    ItemHeader header;
    std::memcpy(&header, bytes.data(), kHeaderSize);
    const auto damage = [&](const char *reason) {
        return Finding{Finding::damaged, offset, header.length, reason};
    };
    if (!header.has_magic()) return damage("no item begins here");
    if (header.state == kEnd && header.length == 0) return {Finding::end, offset, 0, ""};
    if (header.state != kWritten && header.state != kCommitted) return damage("unknown state");
    if (header.length == 0) return damage("length 0, which ends the file for readers");
    if (header.length > FQ_ITEM_MAX) return damage("impossible length");
    const int64_t end = offset + header.length + FQ_ITEM_EXTRA;
    if (end > file.size())
        return {Finding::incomplete, offset, header.length, "longer than the file"};
    if (file.bytes(end - kTrailerSize, kTrailerSize) != kTrailer) return damage("no ZZ at its end");
    return {header.state == kCommitted ? Finding::item : Finding::pending, offset, header.length,
            ""};
}

// Where the next item may begin; the file's size when nowhere.
int64_t next_magic(Window &file, int64_t offset) {
    constexpr size_t kStep = 65536;
    for (; offset < file.size(); offset += static_cast<int64_t>(kStep - kMagicSize)) {
        const size_t at = file.bytes(offset, kStep).find(kMagic);
        if (at != std::string_view::npos) return offset + static_cast<int64_t>(at);
    }
    return file.size();
}

bool is_data_file(const std::string &name, const std::string &prefix) {
    if (name.compare(0, prefix.size(), prefix) != 0) return false;
    const std::string digits = name.substr(prefix.size());
    return digits.size() >= 9 && digits.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

std::vector<DataFile> data_files(const std::string &path) {
    char directory_name[FQ_NAME_SIZE], base[FQ_NAME_SIZE];
    fq_dirof(path.c_str(), directory_name);
    fq_nameof(path.c_str(), base);
    if (directory_name[0] == '\0') std::strcpy(directory_name, "/");
    Directory directory(directory_name);
    if (!directory) fail(directory_name);
    std::vector<DataFile> files;
    while (const char *name = directory.next()) {
        if (!is_data_file(name, std::string(base) + ".")) continue;
        struct stat found {};
        const std::string full = std::string(directory_name) + "/" + name;
        if (stat(full.c_str(), &found) == 0 && S_ISREG(found.st_mode))
            files.push_back({fq_forderof(name), int64_t{found.st_size}});
    }
    std::sort(files.begin(), files.end(),
              [](const DataFile &a, const DataFile &b) { return a.order < b.order; });
    return files;
}

SavedPosition saved_position(const std::string &path, char mode) {
    SavedPosition saved;
    const FileName name = position_file(path.c_str(), mode);
    const Descriptor file = open_file(name.text, O_RDONLY);
    if (!file && errno == ENOENT) return saved;
    if (!file) fail(name.text);
    const int64_t size = size_of(file);
    saved.torn = size % kRecordSize;
    char record[kRecordSize];
    if (size < kRecordSize ||
        pread(file.get(), record, kRecordSize, size - saved.torn - kRecordSize) != kRecordSize)
        return saved;
    saved.at = position_in(record);
    saved.found = saved.at.valid();
    saved.damaged = !saved.found;
    return saved;
}

void inspect_file(const std::string &path, int32_t order, int64_t from,
                  const std::function<bool(const Finding &)> &visit) {
    Window file(data_file(path.c_str(), order).text);
    for (int64_t offset = from; offset < file.size();) {
        const Finding finding = look_at(file, offset);
        if (!visit(finding)) return;
        switch (finding.kind) {
        case Finding::item:
        case Finding::pending:
            offset += finding.length + FQ_ITEM_EXTRA;
            break;
        case Finding::end:
            offset += FQ_ITEM_EXTRA;
            break;
        default:
            offset = next_magic(file, offset + 1);
        }
    }
}

} // namespace halvo::tools
