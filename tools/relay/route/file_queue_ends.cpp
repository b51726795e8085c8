// File queues as ends of a route.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "core/base/posix.h"
#include "halvo/fq.h"
#include "tools/relay/base/hash.h"
#include "tools/relay/base/incarnation.h"
#include "tools/relay/base/pause.h"
#include "tools/relay/route/ends.h"

namespace halvo::relay {

namespace {

constexpr int kNoChannel = -1;
constexpr size_t kHeaderBytes = 20, kLengthAt = 16;
constexpr unsigned kFirstRoom = 65536, kMostRoom = 128U << 20; // bytes of an item
constexpr int kPollMilliseconds = 10; // nothing wakes a reader of a file queue

// Results of the file queue.
constexpr int kTooLarge = -2; // the item, for the room
constexpr int kNoFileLock =
    -4; // here: a signal ended the wait for it, so that the relay is to stop

// File order and offset of a position.
void copy_position(char (&to)[24], const char *record) {
    std::memset(to, 0, sizeof to);
    std::memcpy(to, record, 9);
    std::memcpy(to + 10, record + 10, 9);
}
bool same(const char (&a)[24], const char (&b)[24]) { return std::memcmp(a, b, sizeof a) == 0; }

// Room for an item of any length.
class ItemRoom {
public:
    char *data() { return bytes_.data(); }
    const char *item() const { return bytes_.data() + kHeaderBytes; }
    unsigned size() const { return static_cast<unsigned>(bytes_.size()) - FQ_ITEM_EXTRA; }
    // For the item that did not fit: its header is there and tells the length.
    bool grow() {
        uint32_t length = 0;
        std::memcpy(&length, bytes_.data() + kLengthAt, sizeof length);
        if (length <= size() || length > kMostRoom) return false;
        bytes_.resize(size_t{length} + FQ_ITEM_EXTRA);
        return true;
    }

private:
    std::vector<char> bytes_ = std::vector<char>(kFirstRoom);
};

class FileSource : public Source {
public:
    FileSource(const std::string &path, int type) : path_(path), type_(type) {}
    ~FileSource() override {
        if (locked_) fq_dequeue_rollback(kNoChannel, &trans_);
    }

    uint32_t take(uint32_t most, int milliseconds) override {
        const int64_t end = milliseconds_now() + milliseconds;
        const Stop never{false};
        while (!begin()) {
            const int64_t now = milliseconds_now();
            if (now >= end) return 0;
            sleep_until(std::min(now + kPollMilliseconds, end), never);
        }
        while (items_.size() < most && add(read_next())) {
        }
        return static_cast<uint32_t>(items_.size());
    }
    Message message(uint32_t index) override {
        const std::string &item = items_[index];
        return {item.data(), static_cast<uint32_t>(item.size()), type_};
    }
    void release(uint32_t count) override;
    void give_back() override {
        items_.clear();
        if (!locked_) return;
        locked_ = false;
        if (fq_dequeue_rollback(kNoChannel, &trans_) < 0) fail("give back");
    }
    void describe(Place &place) override {
        copy_position(place.position, trans_.startpos);
        copy_position(place.after, items_.empty() ? trans_.startpos : trans_.nextpos);
        place.pid = getpid();
        if (incarnation_ == 0 && trans_.startpos[0]) // its files are there
            incarnation_ = incarnation_of_file(path_ + ".head");
        place.incarnation = incarnation_;
        place.fingerprint = items_.empty() ? 0 : hash_of(items_[0].data(), items_[0].size());
    }
    int64_t waiting() override { return -1; }
    // A commit moves the position behind the whole batch. At the old position must be the item that
    // was there; at any other one somebody else has been at work.
    std::optional<uint32_t> consumed_since(const Sending &sending) override {
        begin();
        Place now{};
        describe(now);
        give_back();
        const Place &then = sending.place;
        if (sending.count > 0 && same(now.position, then.after)) return sending.count;
        if (!same(now.position, then.position)) return std::nullopt;
        if (sending.count == 0 || now.fingerprint == then.fingerprint) return 0;
        return std::nullopt;
    }

private:
    [[noreturn]] void fail(const char *what) const {
        throw EndError("file queue " + path_ + ": " + what + " failed");
    }
    // Takes the side and reads the first item. Leaves the position in the record in any case.
    bool begin() {
        int got = 0;
        do got = fq_dequeue(kNoChannel, path_.c_str(), room_.data(), room_.size(), &trans_);
        while (got == kTooLarge && room_.grow());
        if (got == kNoFileLock) return false;
        if (got < 0) fail("read");
        locked_ = got > 0;
        return add(got);
    }
    int read_next() {
        int got = 0;
        do got = fq_dequeue_next(kNoChannel, path_.c_str(), &trans_, room_.data(), room_.size());
        while (got == kTooLarge && room_.grow());
        // What was read before a damaged item goes its way first.
        return got;
    }
    bool add(int got) {
        if (got > 0) items_.emplace_back(room_.item(), static_cast<size_t>(trans_.itemlen));
        return got > 0;
    }
    std::string path_;
    int type_;
    fqtrans trans_{};
    bool locked_ = false;
    ItemRoom room_;
    std::vector<std::string> items_;
    uint64_t incarnation_ = 0;
};

// The whole batch or nothing, for so a transaction ends.
void FileSource::release(uint32_t count) {
    if (count == 0) return give_back();
    if (count != items_.size()) fail("release a part");
    items_.clear();
    locked_ = false;
    if (fq_dequeue_commit(kNoChannel, &trans_) < 0) fail("commit");
}

class FileSink : public Sink {
public:
    explicit FileSink(const std::string &path) : path_(path) {}
    ~FileSink() override { FileSink::drop(); }

    uint32_t longest() const override { return kMostRoom; }
    uint32_t most() const override { return kMostBatch; }
    bool mark(uint32_t index, const Incoming &message, int) override {
        const auto length = static_cast<unsigned>(message.body.size());
        const int result =
            index == 0 ? fq_enqueue(kNoChannel, path_.c_str(), message.body.data(), length, &trans_)
                       : fq_enqueue_next(kNoChannel, message.body.data(), length, &trans_);
        locked_ = result > 0;
        if (result == kNoFileLock) return false;
        if (result <= 0) fail("write");
        if (index == 0) fingerprint_ = hash_of(message.body.data(), message.body.size());
        return true;
    }
    void commit() override {
        locked_ = false;
        if (fq_enqueue_commit(kNoChannel, &trans_) < 0) fail("commit");
    }
    void drop() override {
        if (locked_) fq_enqueue_rollback(kNoChannel, &trans_);
        locked_ = false;
    }
    void describe(Place &place) override {
        copy_position(place.position, trans_.startpos);
        copy_position(place.after, trans_.nextpos);
        place.pid = getpid();
        place.incarnation = incarnation();
        place.fingerprint = fingerprint_;
    }
    std::optional<uint32_t> committed_since(const Arriving &arriving) override;

private:
    [[noreturn]] void fail(const char *what) const {
        throw EndError("file queue " + path_ + ": " + what + " failed");
    }
    uint64_t incarnation() {
        if (incarnation_ == 0) incarnation_ = incarnation_of_file(path_ + ".tail");
        return incarnation_;
    }
    std::string path_;
    fqtrans trans_{};
    bool locked_ = false;
    uint64_t fingerprint_ = 0;
    uint64_t incarnation_ = 0;
};

// The commit makes the first item readable last, and then moves the position: the first item, if it
// is ours and readable, tells that all are. A data file that has gone was read to its end.
std::optional<uint32_t> FileSink::committed_since(const Arriving &arriving) {
    const Place &place = arriving.place;
    if (place.incarnation != incarnation()) return std::nullopt;
    const std::string file = path_ + "." + std::string(place.position, 9);
    if (!open_file(file.c_str(), O_RDONLY))
        return errno == ENOENT ? std::optional(arriving.count.load()) : std::nullopt;
    fqtrans there{};
    path_.copy(there.path, sizeof there.path - 1);
    std::memcpy(there.curpos, place.position, 19);
    ItemRoom room;
    int got = 0;
    do got = fq_read_item(path_.c_str(), &there, room.data(), room.size());
    while (got == kTooLarge && room.grow());
    const bool ours =
        got > 0 && hash_of(room.item(), static_cast<size_t>(there.itemlen)) == place.fingerprint;
    return ours ? arriving.count.load() : 0;
}

} // namespace

std::unique_ptr<Source> open_file_source(const std::string &path, int default_type) {
    return std::make_unique<FileSource>(path, default_type);
}

std::unique_ptr<Sink> open_file_sink(const std::string &path) {
    return std::make_unique<FileSink>(path);
}

std::unique_ptr<Source> open_source(const Endpoint &endpoint, int default_type) {
    if (endpoint.kind == Endpoint::channel) return open_channel_source(endpoint.name);
    return open_file_source(endpoint.name, default_type);
}

std::unique_ptr<Sink> open_sink(const Endpoint &endpoint, int default_type, Arriving &arriving) {
    if (endpoint.kind == Endpoint::channel)
        return open_channel_sink(endpoint.name, default_type, arriving);
    return open_file_sink(endpoint.name);
}

} // namespace halvo::relay
