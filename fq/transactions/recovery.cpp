// sms_fq: a transaction becomes readable first and its position is saved then. A writer that dies
// in between has put its items into the queue, though nobody was told; they may have been read
// already. One that dies earlier leaves items that must never become readable. So the next writer
//
//   saved position           end of file
//     | F | F | F | W | F | W |            steps over the complete F items (readable, not saved),
//                 ^ goes on here           over an end item into the next file, and cuts off what
//                                          begins with an item that was not committed, or not
//                                          written whole.
//
// Nothing is cut where no item begins: what stands there may still be wanted by a reader that is
// behind (the log was lost), and the writer's items go over it one by one.
#include "fq/transactions/recovery.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fq/files/durable.h"
#include "fq/files/open_files.h"
#include "fq/files/position.h"
#include "fq/files/readable_items.h"
#include "fq/transactions/item_write.h"

using namespace halvo;
using namespace halvo::fq;

namespace {

enum class Found { settled, next_file, failed };

Found cut(int fd, int64_t at) {
    return ftruncate(fd, at) == 0 && sync_file(fd) ? Found::settled : Found::failed;
}

// What is not known is not cut off.
Found settle_in_file(int fd, int64_t size, Position &at) {
    switch (pass_readable_items(fd, size, at.offset)) {
    case Behind::unfinished:
        return cut(fd, at.offset);
    case Behind::end:
        return sync_file(fd) ? Found::next_file : Found::failed;
    case Behind::unknown:
        return Found::failed;
    default:
        return Found::settled;
    }
}

// The file ends before the position that was saved: a loss of power took what had been written. Its
// whole items stay, and an end item behind them leads readers into the next file.
Found end_short_file(int fd, int64_t size, const FileName &name) {
    Position end{0, 0};
    std::printf("data file %s ends before the writer's position; the next one goes on\n",
                name.text);
    const Found found = settle_in_file(fd, size, end);
    if (found != Found::settled || write_end_item(fd, end.offset) < 0 || !sync_file(fd))
        return found == Found::next_file ? found : Found::failed;
    return Found::next_file;
}

Found settle(int fd, const struct stat &file, Position &at, const char *path) {
    if (!S_ISREG(file.st_mode)) return Found::settled;
    if (is_durable() && file.st_size < at.offset)
        return end_short_file(fd, file.st_size, data_file(path, at.order));
    return settle_in_file(fd, file.st_size, at);
}

// The data file is gone. A reader removes one only when it has gone on to a later one; then the
// file had been ended by a writer that died before it saved its position. `known`: whether one could
// see where the reader is. A writer that has no right to see it still begins new files.
bool follow_reader(int directory, const char *path, Position &at, bool &known) {
    const Position reader = saved_position(directory, head_file(path), known);
    known = known || (errno == EACCES && at.offset == 0);
    if (!reader.valid() || !comes_after(at.order, reader.order)) return false;
    at = {reader.order, 0};
    return true;
}

} // namespace

int halvo::fq::settle_writer(fqtrans *trans) noexcept {
    Position at = position_in(trans->curpos);
    if (!at.valid()) return 0; // the first write says so
    DataFile data(trans, trans->path);
    OpenSide *side = data.side();
    for (;;) {
        // Nothing stands behind the position in the file that the last transaction left open.
        if (side && side->has_data(at.order) && side->data.size() == at.offset) break;
        if (!data.open_anew(at.order, O_RDWR)) {
            const bool missing = errno == ENOENT;
            bool known = false;
            if (missing && follow_reader(data.directory(), trans->path, at, known)) continue;
            if (known) break;
            std::printf(missing ? "fq_enqueue.recovery error %s\n"
                                : "fq_write_item.open error %s\n",
                        data_file(trans->path, at.order).text);
            return -1;
        }
        struct stat file {};
        const bool known = fstat(data.get(), &file) == 0;
        const Found found = known ? settle(data.get(), file, at, trans->path) : Found::failed;
        if (found == Found::failed) {
            std::printf("fq_enqueue.recovery error %s\n", data_file(trans->path, at.order).text);
            return -1;
        }
        if (found == Found::settled) break;
        at = {next_order_of_commit(at.order), 0};
    }
    put_order(trans->curpos, at.order);
    put_offset(trans->curpos, at.offset);
    std::memcpy(trans->startpos, trans->curpos, kRecordSize);
    return 0;
}
