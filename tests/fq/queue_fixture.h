// A file queue, mostly in a directory of its own, and its files as short texts.
//
//     Queue queue;
//     queue.put({"one", "two"});
//     EXPECT_EQ(queue.picture(0), "F(one) F(two)");
//     EXPECT_EQ(queue.take(), "one");
#pragma once

#include <sys/stat.h>

#include <cstring>
#include <vector>

#include "fq/files/format.h"
#include "halvo/fq.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/peer.h"

namespace halvo::test {

// A position record as it stands in a file, and its numbers alone.
inline std::string record(int order, int offset) {
    char text[64];
    std::snprintf(text, sizeof text, "%09d %09d      first\n", order, offset);
    return text;
}
inline std::string place(int order, int offset) { return record(order, offset).substr(0, 19); }

// The same of a record that is held in memory.
inline std::string held(const char *numbers) {
    return std::string(numbers, 9) + " " + std::string(numbers + 10, 9);
}

// The bytes of an item, built here by hand: not with the code under test.
inline std::string item_bytes(char state, const std::string &data, uint32_t stamp = 0) {
    std::string bytes = std::string("QITM") + state + std::string(7, '\0');
    const auto length = static_cast<uint32_t>(data.size());
    for (const uint32_t word : {stamp, length})
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(static_cast<uint8_t>(word >> shift));
    return bytes + data + "ZZ";
}
inline const std::string kEndItem = item_bytes('E', "");
inline const std::string one = item_bytes('F', "one"), two = item_bytes('F', "two");

// The items of a data file: "F(one) W(two) E"; "?12" for 12 bytes that are none; long data as its
// length, "F(#4999968)".
inline std::string picture_of(const std::string &bytes) {
    std::string text;
    for (size_t at = 0; at < bytes.size();) {
        if (at) text += ' ';
        uint32_t length = 0;
        if (bytes.size() - at >= 22) std::memcpy(&length, bytes.data() + at + 16, sizeof length);
        const bool whole = bytes.size() - at >= 22 && bytes.compare(at, 4, "QITM") == 0 &&
                           bytes.size() - at - 22 >= length &&
                           bytes.compare(at + 20 + length, 2, "ZZ") == 0;
        if (!whole) return text + "?" + std::to_string(bytes.size() - at);
        text += bytes[at + 4];
        if (length > 40)
            text += "(#" + std::to_string(length) + ")";
        else if (length > 0)
            text += "(" + bytes.substr(at + 20, length) + ")";
        at += 22 + size_t{length};
    }
    return text;
}

// Two lists of items as texts: "one two".
inline std::string joined(const std::string &a, const std::string &b) {
    return a.empty() || b.empty() ? a + b : a + " " + b;
}

inline std::string text_of(const std::vector<std::string> &items) {
    std::string all;
    for (const std::string &item : items) all = joined(all, item);
    return all;
}

class QueueAt {
public:
    explicit QueueAt(std::string path) : path_(std::move(path)) {}

    const char *path() const { return path_.c_str(); }
    std::string directory() const { return path_.substr(0, path_.rfind('/')); }

    // Files by suffix: "tail", "head", "wrlk", "rdlk", or by file order.
    std::string file(const std::string &suffix) const { return path_ + "." + suffix; }
    std::string file(int order) const { return fq::data_file(path(), order).text; }
    bool has(auto which) const { return exists(file(which)); }
    std::string bytes(auto which, int from = 0) const {
        return has(which) ? content_of(file(which)).substr(static_cast<size_t>(from)) : "";
    }
    void store(auto which, const std::string &bytes, int hole = 0) const {
        std::ofstream out(file(which), std::ios::binary);
        if (!(out.seekp(hole) << bytes).flush()) throw std::runtime_error("store");
    }
    // Overwrites bytes of a file in place.
    void patch(auto which, int offset, const std::string &bytes) const {
        std::fstream out(file(which), std::ios::binary | std::ios::in | std::ios::out);
        if (!(out.seekp(offset) << bytes).flush()) throw std::runtime_error("patch");
    }
    void remove(auto which) const { ::unlink(file(which).c_str()); }
    void cut(auto which, int size) const {
        if (truncate(file(which).c_str(), size) != 0) throw std::runtime_error("truncate");
    }
    std::string picture(int order) const { return picture_of(bytes(order)); }
    // Whether another process finds the writer's side locked.
    bool others_are_kept_out() const {
        Peer other([&] {
            const Descriptor lock(open(file("wrlk").c_str(), O_WRONLY));
            return lockf(lock.get(), F_TLOCK, 0) == 0 ? 1 : 0;
        });
        return other.wait() == 0;
    }
    // Removes all files: another queue for the price of one. The lock files stay: their inodes are
    // the keys of the process's table of mutexes.
    void clear() const {
        Directory files(directory().c_str());
        while (const char *name = files.next())
            if (!std::strstr(name, "lk")) ::unlink((directory() + "/" + name).c_str());
    }
    // The last record of a position file, without label: "000000003 004998211".
    std::string position(const std::string &suffix) const {
        const std::string log = bytes(suffix);
        return log.size() < 31 ? "none" : log.substr(log.size() / 31 * 31 - 31, 19);
    }

    // Begins a transaction with these items; the result of the last call.
    int begin(fqtrans &trans, const std::vector<std::string> &items, int channel = -1) const {
        int result = 0;
        for (size_t i = 0; i < items.size() && result >= 0; ++i) {
            const auto length = static_cast<unsigned>(items[i].size());
            result = i == 0 ? fq_enqueue(channel, path(), items[i].data(), length, &trans)
                            : fq_enqueue_next(channel, items[i].data(), length, &trans);
        }
        return result;
    }
    // A whole transaction; the commit's result.
    int put(const std::vector<std::string> &items, int channel = -1) const {
        fqtrans trans;
        const int begun = begin(trans, items, channel);
        return begun < 0 ? begun : fq_enqueue_commit(channel, &trans);
    }
    int put_away(const std::string &data) const {
        return fq_enqueue_away(-1, -1, 1, path(), data.data(), static_cast<unsigned>(data.size()));
    }

    // Reads up to `most` items in one transaction, which it leaves open; the last result.
    int read(fqtrans &trans, std::vector<std::string> &items, size_t most = 1000,
             unsigned cap = 1000) const {
        std::string buffer(cap + 22, '?');
        int result = fq_dequeue(-1, path(), buffer.data(), cap, &trans);
        while (result > 0) {
            items.push_back(buffer.substr(20, static_cast<size_t>(trans.itemlen)));
            if (items.size() == most) break;
            result = fq_dequeue_next(-1, path(), &trans, buffer.data(), cap);
        }
        return result;
    }
    // Takes the next item: its data, or "[result]" of fq_dequeue.
    std::string take(unsigned cap = 1000) const {
        fqtrans trans;
        std::vector<std::string> items;
        const int result = read(trans, items, 1, cap);
        if (result <= 0) return "[" + std::to_string(result) + "]";
        return fq_dequeue_commit(-1, &trans) == 0 ? items[0] : "[commit]";
    }
    // Everything that can be taken, in one text: "one two".
    std::string drain() const {
        std::string all;
        for (std::string data = take(); data != "[0]"; data = take()) {
            all = joined(all, data);
            if (data[0] == '[') break;
        }
        return all;
    }
    // The same in a single transaction.
    std::string drain_at_once(unsigned cap = 1000) const {
        fqtrans trans;
        std::vector<std::string> items;
        const int result = read(trans, items, 1000, cap);
        if (items.empty() && result == 0) return "";
        const bool done = fq_dequeue_commit(-1, &trans) == 0 && result == 0;
        return text_of(items) + (done ? "" : "[failed]");
    }

private:
    std::string path_;
};

class Queue : private TestDirectory, public QueueAt {
public:
    explicit Queue(const std::string &name = "q") : QueueAt(TestDirectory::path(name)) {}
    using QueueAt::path;
};

// Data of `length` bytes.
inline std::string filler(int length) { return std::string(static_cast<size_t>(length), 'x'); }

} // namespace halvo::test
