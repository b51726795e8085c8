#include "tools/fq/inspect.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fq/files/last_record.h"
#include "tools/frame/program.h"
#include "tools/frame/text.h"

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

Finding judged(DataReader &file, int64_t offset, int64_t size) {
    const std::string_view bytes = file.bytes(offset, kHeaderSize);
    if (bytes.size() < kHeaderSize)
        return {Finding::incomplete, offset, 0, 0, "a part of a header"};
    ItemHeader header;
    std::memcpy(&header, bytes.data(), kHeaderSize);
    const auto found = [&](Finding::Kind kind, const char *reason) {
        return Finding{kind, offset, header.length, header.stamp, reason};
    };
    if (!header.has_magic()) return found(Finding::damaged, "no item begins here");
    if (header.state == kEnd && header.length == 0) return found(Finding::end, "");
    const ItemKind kind = kind_of(header);
    if (kind == ItemKind::strange) return found(Finding::damaged, "unknown state");
    if (header.length == 0)
        return found(Finding::damaged, "length 0, which ends the file for readers");
    if (header.length > FQ_ITEM_MAX) return found(Finding::damaged, "impossible length");
    const int64_t end = offset + size_of_item(header);
    if (end > size) return found(Finding::incomplete, "longer than the file");
    if (!is_trailer(file.bytes(end - kTrailerSize, kTrailerSize).data()))
        return found(Finding::damaged, "no ZZ at its end");
    return found(kind == ItemKind::readable ? Finding::item : Finding::pending, "");
}

// Where the next item may begin; the file's size when nowhere.
int64_t next_magic(DataReader &file, int64_t offset) {
    constexpr size_t kStep = 65536;
    for (; offset < file.size(); offset += static_cast<int64_t>(kStep - kMagicSize)) {
        const size_t at = file.bytes(offset, kStep).find(kMagic);
        if (at != std::string_view::npos) return offset + static_cast<int64_t>(at);
    }
    return file.size();
}

std::string directory_of(const std::string &path) {
    char name[FQ_NAME_SIZE];
    fq_dirof(path.c_str(), name);
    return name[0] == '\0' ? "/" : name;
}

bool is_data_file(const std::string &name, const std::string &prefix) {
    if (name.compare(0, prefix.size(), prefix) != 0) return false;
    const std::string digits = name.substr(prefix.size());
    return digits.size() >= 9 && digits.find_first_not_of("0123456789") == std::string::npos;
}

} // namespace

std::vector<DataFile> data_files(const std::string &path) {
    char base[FQ_NAME_SIZE];
    fq_nameof(path.c_str(), base);
    const std::string directory_name = directory_of(path);
    Directory directory(directory_name.c_str());
    if (!directory) fail(directory_name);
    std::vector<DataFile> files;
    while (const char *name = directory.next()) {
        if (!is_data_file(name, std::string(base) + ".")) continue;
        struct stat found {};
        const std::string full = directory_name + "/" + name;
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
    char record[kRecordSize] = {};
    LastRecord last;
    if (size < kRecordSize || read_last_record(file.get(), size, record, last) != kRecordSize)
        return saved;
    saved.at = position_in(record);
    saved.found = saved.at.valid();
    saved.damaged = !saved.found;
    return saved;
}

void need_queue(const std::string &path) {
    if (data_files(path).empty() && !saved_position(path, 'w').found &&
        !saved_position(path, 'r').found)
        throw ToolError(kUsage, path + ": no queue of that name");
}

void need_side(const std::string &path, char mode) {
    if (path.empty()) throw ToolError(kUsage, "the path of the queue is empty");
    const FileName lock = lock_file(path.c_str(), mode);
    if (access(lock.text, W_OK) == 0) return;
    if (errno != ENOENT) fail(lock.text);
    const std::string directory = directory_of(path);
    if (access(directory.c_str(), W_OK | X_OK) != 0) fail(directory);
}

std::string room_text(const std::string &path) {
    constexpr uint64_t kEnough = 1 << 20;
    struct statvfs disk {};
    if (statvfs(directory_of(path).c_str(), &disk) != 0) return {};
    const uint64_t room = uint64_t{disk.f_bavail} * disk.f_frsize;
    return room < kEnough ? text("; its disk has %ju bytes left", uintmax_t{room}) : std::string();
}

// ---- Data files --------------------------------------------------------------------------------

DataReader::DataReader(const std::string &path, int32_t order)
    : name_(data_file(path.c_str(), order).text), file_(open_file(name_.c_str(), O_RDONLY)) {
    if (!file_ && errno == ENOENT) return;
    if (!file_ || (size_ = size_of(file_)) < 0) fail(name_);
}

std::string_view DataReader::bytes(int64_t offset, size_t count) {
    const int64_t end = begin_ + static_cast<int64_t>(length_);
    if (offset < begin_ || offset + static_cast<int64_t>(count) > end) load(offset, count);
    const auto start = static_cast<size_t>(offset - begin_);
    if (start >= length_) return {};
    return {window_.data() + start, std::min(count, length_ - start)};
}

// After small items a whole window, after large ones no more than asked for.
void DataReader::load(int64_t offset, size_t count) {
    constexpr size_t kSmallest = 512, kLargest = 65536;
    const bool near = offset - begin_ <= static_cast<int64_t>(length_ + kTrailerSize);
    ahead_ = near ? std::min(ahead_ * 4, kLargest) : kSmallest;
    const size_t wanted = std::max(count, ahead_);
    if (window_.size() < wanted) window_.resize(wanted);
    const ssize_t got = pread(file_.get(), window_.data(), wanted, offset);
    if (got < 0) fail(name_);
    length_ = static_cast<size_t>(got);
    begin_ = offset;
}

std::string DataReader::data(const Finding &finding) {
    std::string data(finding.length, '\0');
    const ssize_t got =
        pread(file_.get(), data.data(), data.size(), finding.offset + int64_t{kHeaderSize});
    if (got < 0) fail(name_);
    data.resize(static_cast<size_t>(got));
    return data;
}

void DataReader::visit(int64_t from, const std::function<bool(const Finding &)> &visit) {
    for (int64_t offset = from; offset < size_;) {
        const Finding finding = judged(*this, offset, size_);
        if (!visit(finding)) return;
        const bool whole = finding.kind == Finding::item || finding.kind == Finding::pending ||
                           finding.kind == Finding::end;
        offset = whole ? offset + finding.length + FQ_ITEM_EXTRA : next_magic(*this, offset + 1);
    }
}

} // namespace halvo::tools
