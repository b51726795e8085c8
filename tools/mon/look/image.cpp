#include "tools/mon/look/image.h"

#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "halvo/queue.h"
#include "tools/frame/files.h"
#include "tools/frame/output.h"

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

// What marks an image with the segment that it is of, in words of its header that no segment uses.
struct Mark {
    char sign[4]; // kSign; anything else is an image without a mark
    int32_t id;
};
constexpr char kSign[4] = {'i', 'm', 'g', '1'};
static_assert(sizeof(Mark) <= sizeof(halvo_segment::reserved3));

Mark mark_of(const halvo_segment &header) {
    Mark mark{};
    std::memcpy(&mark, header.reserved3, sizeof mark);
    return mark;
}

bool has_gone_back(const Image &image, const Image &segment) {
    for (int i = 0; i < image.channels(); ++i) {
        const halvo_channel &then = image.channel(i), &now = segment.channel(i);
        for (const auto counter : {&halvo_channel::pcnt, &halvo_channel::gcnt,
                                   &halvo_channel::fpcnt, &halvo_channel::fgcnt})
            if ((now.*counter).count < (then.*counter).count) return true;
    }
    return false;
}

// A segment that was made anew counts from 0 again. It has another id, was made after the image was
// taken, and its monitor began at another time; counters that went back tell it where an image has no
// mark, because another program took it.
bool is_older(const Image &image, const Image &segment, const Origin &origin) {
    const int32_t then = image.header().uptime, now = segment.header().uptime;
    if (then != 0 && now != 0 && then != now) return true;
    if (image.header().now < origin.made) return true;
    const Mark mark = mark_of(image.header());
    const bool marked = std::memcmp(mark.sign, kSign, sizeof kSign) == 0;
    return marked ? mark.id != origin.id : has_gone_back(image, segment);
}

} // namespace

Image::Image() : bytes_(q_0() ? image_size(*q_0()) : sizeof(halvo_segment)) {}

Image Image::of_segment() {
    Image image;
    if (q_snapshot(image.data(), static_cast<int>(image.bytes_.size())) != 0)
        throw ToolError(kFailed, "the segment changes its size");
    return image;
}

void Image::mark(const Origin &origin) {
    Mark mark{{}, origin.id};
    std::memcpy(mark.sign, kSign, sizeof kSign);
    auto &header = *reinterpret_cast<halvo_segment *>(bytes_.data());
    std::memcpy(header.reserved3, &mark, sizeof mark);
    header.now = static_cast<int32_t>(std::time(nullptr)); // the segment's clock may stand still
}

Image Image::of_file(const std::string &path, const Origin &origin) {
    Image image;
    const auto size = static_cast<int>(image.bytes_.size());
    const bool loaded = q_load_snapshot(image.data(), size, path.c_str()) == size;
    const Image segment = of_segment();
    if (!loaded || !same_names(image, segment))
        throw ToolError(kUsage, path + ": no snapshot of this segment; --take makes a new one");
    if (is_older(image, segment, origin))
        throw ToolError(kUsage, path + ": older than the segment; --take makes a new one");
    return image;
}

void Image::save(const std::string &path) const {
    if (tools::replace_file(path, bytes_.data(), bytes_.size())) return;
    throw ToolError(kFailed, path + ": the snapshot cannot be saved, " + std::strerror(errno));
}

const halvo_segment &Image::header() const {
    return *reinterpret_cast<const halvo_segment *>(bytes_.data());
}

int Image::channels() const { return channel_count(header()); }

const halvo_channel &Image::channel(int number) const {
    const char *first = bytes_.data() + sizeof(halvo_segment);
    return reinterpret_cast<const halvo_channel *>(first)[number];
}

} // namespace halvo::mon
