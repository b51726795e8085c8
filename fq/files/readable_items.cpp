#include "fq/files/readable_items.h"

#include <unistd.h>

#include "fq/files/format.h"

using namespace halvo::fq;

namespace {

// Reads what the file holds for certain.
bool read_whole(int fd, void *data, size_t size, int64_t at) {
    return pread(fd, data, size, at) == static_cast<ssize_t>(size);
}

} // namespace

Behind halvo::fq::pass_readable_items(int fd, int64_t size, int32_t &offset) noexcept {
    while (offset + int64_t{kHeaderSize} <= size) {
        ItemHeader header;
        char trailer[kTrailerSize];
        if (!read_whole(fd, &header, kHeaderSize, offset)) return Behind::unknown;
        const int64_t end = offset + size_of_item(header);
        switch (kind_of(header)) {
        case ItemKind::strange:
            return Behind::nothing;
        case ItemKind::end:
            return Behind::end;
        case ItemKind::written:
            return Behind::unfinished;
        case ItemKind::readable:
            if (end > size) return Behind::unfinished;
            if (!read_whole(fd, trailer, kTrailerSize, end - kTrailerSize)) return Behind::unknown;
            if (!is_trailer(trailer)) return Behind::unfinished;
            if (!fits_field(end)) return Behind::nothing;
            offset = static_cast<int32_t>(end);
        }
    }
    // The beginning of an item.
    return offset < size ? Behind::unfinished : Behind::nothing;
}
