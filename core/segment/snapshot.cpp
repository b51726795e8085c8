// sms_shm: an image of all headers and counters, without the messages, in memory or in a file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "core/base/posix.h"
#include "core/segment/segment.h"

using namespace halvo;

int q_snapshot(void *buffer, int size) noexcept {
    if (buffer && size > 0) std::memset(buffer, 0, static_cast<size_t>(size));
    const halvo_segment *segment = attached_segment();
    if (!segment) return -1;
    const int channels = channel_count(segment);
    const int64_t needed =
        int64_t{channels} * int64_t{sizeof(halvo_channel)} + int64_t{sizeof(halvo_segment)};
    if (!buffer || needed > size) return -2;
    char *to = static_cast<char *>(buffer);
    std::memcpy(to, segment, sizeof *segment);
    to += sizeof *segment;
    // A header that does not lie in the segment stays zeros.
    for (int channel = 0; channel < channels; ++channel, to += sizeof(halvo_channel))
        if (const halvo_channel *q = header_of(channel)) std::memcpy(to, q, sizeof *q);
    return 0;
}

// Kept: the file is not truncated and a failed write is not reported.
int q_save_snapshot(const void *buffer, int length, const char *path) noexcept {
    if (!path) return -2;
    const CancellationOff whole;
    const Descriptor file = open_file(path, O_WRONLY | O_CREAT);
    if (file.get() < 0) return file.get();
    if (buffer && length > 0) {
        [[maybe_unused]] const ssize_t written =
            write(file.get(), buffer, static_cast<size_t>(length));
    }
    return file.get();
}

int q_load_snapshot(void *buffer, int length, const char *path) noexcept {
    if (!path) return -2;
    if (length <= 0) return -3;
    struct stat found {};
    if (stat(path, &found) != 0 || found.st_size != length) return -1;
    const CancellationOff whole;
    const Descriptor file = open_file(path, O_RDONLY);
    if (file.get() < 0) return file.get();
    const ssize_t got = read(file.get(), buffer, static_cast<size_t>(length));
    return got < length ? -5 : length;
}
