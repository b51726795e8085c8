#include "tools/mon/segment.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "halvo/queue.h"
#include "tools/frame/program.h"

namespace halvo::mon {

using tools::kFailed;
using tools::kUsage;
using tools::ToolError;

namespace {

int channel_count(const halvo_segment &segment) {
    return static_cast<int>(std::min<uint32_t>(segment.nchnnl, HALVO_CHANNELS_MAX));
}

size_t image_size(const halvo_segment &segment) {
    return sizeof(halvo_segment) +
           static_cast<size_t>(channel_count(segment)) * sizeof(halvo_channel);
}

bool same_names(const Image &one, const Image &other) {
    if (one.channels() != other.channels()) return false;
    for (int i = 0; i < one.channels(); ++i)
        if (std::strncmp(one.channel(i).qname, other.channel(i).qname, HALVO_NAME_SIZE) != 0)
            return false;
    return true;
}

// A segment that was made anew counts from 0 again; it also has another start time.
bool is_older(const Image &image, const Image &segment) {
    const int32_t then = image.header().uptime, now = segment.header().uptime;
    return then != 0 && now != 0 && then != now;
}

} // namespace

Image::Image() : bytes_(image_size(*q_0())) {}

Image Image::of_segment() {
    Image image;
    if (q_snapshot(image.data(), static_cast<int>(image.bytes_.size())) != 0)
        throw ToolError(kFailed, "the segment changes its size");
    return image;
}

Image Image::of_file(const std::string &path) {
    Image image;
    const auto size = static_cast<int>(image.bytes_.size());
    const bool loaded = q_load_snapshot(image.data(), size, path.c_str()) == size;
    const Image segment = of_segment();
    if (!loaded || !same_names(image, segment))
        throw ToolError(kUsage, path + ": no snapshot of this segment; --take makes a new one");
    if (is_older(image, segment))
        throw ToolError(kUsage, path + ": older than the segment; --take makes a new one");
    return image;
}

void Image::save(const std::string &path) const {
    // The library neither shortens a longer file nor reports a failed write.
    const std::string fresh = path + "." + std::to_string(getpid());
    const auto size = static_cast<int>(bytes_.size());
    unlink(fresh.c_str());
    std::vector<char> readable(bytes_.size());
    const bool saved = q_save_snapshot(bytes_.data(), size, fresh.c_str()) >= 0 &&
                       q_load_snapshot(readable.data(), size, fresh.c_str()) == size;
    if (saved && std::rename(fresh.c_str(), path.c_str()) == 0) return;
    const std::string why = std::strerror(errno);
    unlink(fresh.c_str());
    throw ToolError(kFailed, path + ": the snapshot cannot be saved, " + why);
}

const halvo_segment &Image::header() const {
    return *reinterpret_cast<const halvo_segment *>(bytes_.data());
}

int Image::channels() const { return channel_count(header()); }

const halvo_channel &Image::channel(int number) const {
    const char *first = bytes_.data() + sizeof(halvo_segment);
    return reinterpret_cast<const halvo_channel *>(first)[number];
}

namespace {

void attach(const std::string &key_file) {
    const int attached = init_shm(key_file.c_str());
    if (attached != ESMS_OK)
        throw ToolError(kUsage, key_file + ": no segment to attach to, " +
                                    tools::result_text(attached) + "; halvo-qm create makes one");
}

void load_options(const std::string &path) {
    if (q_load_print_options(path.c_str()) < 0 || !qprtopts)
        throw ToolError(kUsage, path + ": cannot be read as a file of options");
}

Image snapshot_of(const SegmentOptions &options) {
    const bool exists = access(options.snapshot_file.c_str(), F_OK) == 0;
    if (exists && !options.take) return Image::of_file(options.snapshot_file);
    q_settime(); // a snapshot tells its time by the segment's clock, which may stand still
    Image image = Image::of_segment();
    image.save(options.snapshot_file);
    return image;
}

} // namespace

Monitor::Monitor(const SegmentOptions &options)
    : printed_to_(memfd_create("printed", MFD_CLOEXEC)) {
    if (printed_to_ < 0) throw ToolError(kFailed, std::string("memory: ") + std::strerror(errno));
    attach(options.key_file);
    if (!options.options_file.empty()) load_options(options.options_file);
    if (!options.snapshot_file.empty()) {
        snapshot_.push_back(snapshot_of(options));
        snapshot = snapshot_.front().data();
    }
    baseline_.resize(HALVO_CHANNELS_MAX);
    lastcheck = baseline_.data();
}

Monitor::~Monitor() {
    lastcheck = nullptr;
    snapshot = nullptr;
    close(printed_to_);
}

void Monitor::measure(double seconds) {
    document(q_statprint_json, 'a'); // every print moves the baseline of the next one
    if (seconds > 0) usleep(static_cast<useconds_t>(seconds * 1e6));
}

std::string Monitor::printed(const std::function<void()> &print) const {
    std::fflush(stdout);
    const int before = dup(STDOUT_FILENO);
    if (before < 0 || ftruncate(printed_to_, 0) != 0 || lseek(printed_to_, 0, SEEK_SET) != 0 ||
        dup2(printed_to_, STDOUT_FILENO) < 0)
        throw ToolError(kFailed, std::string("standard output: ") + std::strerror(errno));
    print();
    std::fflush(stdout);
    dup2(before, STDOUT_FILENO);
    close(before);
    std::string text(static_cast<size_t>(lseek(printed_to_, 0, SEEK_END)), '\0');
    const ssize_t got = pread(printed_to_, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
}

std::string Monitor::document(int (*write)(char, char *), char mode) const {
    std::vector<char> text(128 + 1024 * static_cast<size_t>(HALVO_CHANNELS_MAX));
    write(mode, text.data());
    return text.data();
}

} // namespace halvo::mon
