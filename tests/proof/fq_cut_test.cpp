// Files of a queue that end too early, as a power failure or an interrupted copy leaves them: cut at
// every byte of their last three items or records. And more lock files than a process can hold.
#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/proof/stalls.h"

using namespace halvo::test;

namespace {

constexpr int kOrder = 3;         // of the first data file
constexpr unsigned kSeconds = 20; // after which a process counts as hanging
using Items = std::vector<std::string>;
const Items kItems{"one", "second", "3rd", "number4", "5", "sixth"};
const Items kLater{"new1", "newer2"};

// The offset of an item in its file, when the first one stands at `first`.
int offset_of(size_t item, int first) {
    for (size_t i = 0; i < item; ++i) first += static_cast<int>(kItems[i].size()) + 22;
    return first;
}

// What came out, without the results that end a drain.
Items items_in(const std::string &text) {
    std::istringstream in(text);
    Items items;
    for (std::string item; in >> item;)
        if (item[0] != '[') items.push_back(item);
    return items;
}

Items operator+(Items a, const Items &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Row {
    const char *name, *suffix;
    int first;       // offset of the first item
    int from;        // bytes that are always left
    Items next_file; // items there
    const char *loss;
    bool is_log; // with five items read; then nothing may be lost at all
};
const char *const kLoss = "items lost that stood whole before the cut";
const int kEnding = 4999970 - offset_of(4, 0); // the fifth item begins at the file's limit
const Row kRows[] = {
    {"last data file", "000000003", 0, offset_of(3, 0), {}, kLoss, false},
    {"ended data file", "000000003", kEnding, offset_of(4, kEnding), {"next"}, kLoss, false},
    {"writer's position log", "tail", 0, 31 * 4, {}, "items lost", true}, // of seven records
    {"reader's position log", "head", 0, 0, {}, "items lost", true},      // then all is read again
};

enum Found { kSome, kEverything, kLosing, kAltered };

// A reader takes what there is, a writer and a reader go on. `whole` must come out first, then may
// `more` and what is new.
int found_after(const Queue &queue, const Items &whole, const Items &more) {
    Peer others([&] {
        const StdoutCapture unseen;
        alarm(kSeconds);
        std::string got = queue.drain();
        if (queue.put({kLater[0]}) != 0 || queue.put_away(kLater[1]) != 0) return kAltered;
        got += " " + queue.drain();
        const Items items = items_in(got), all = whole + more + kLater;
        size_t known = 0;
        for (const std::string &item : all) known += known < items.size() && items[known] == item;
        if (known < items.size()) return kAltered;
        if (known == all.size()) return kEverything;
        const bool begins =
            known >= whole.size() && std::equal(whole.begin(), whole.end(), items.begin());
        return begins ? kSome : kLosing;
    });
    return others.wait();
}

void cut_at_every_byte(const Row &row) {
    SCOPED_TRACE(row.name);
    const Queue queue;
    queue.store("tail", record(kOrder, row.first));
    queue.store("head", record(kOrder, row.first));
    for (const std::string &item : kItems + row.next_file) ASSERT_EQ(queue.put({item}), 0);
    for (int taken = 0; row.is_log && taken < 5; ++taken) queue.take();
    const std::string data = queue.bytes(kOrder, row.first);
    const std::string next = queue.bytes(kOrder + 1);
    const std::string tail = queue.bytes("tail"), head = queue.bytes("head");
    const int end = static_cast<int>(queue.bytes(row.suffix).size());
    int cuts = 0, hangs = 0, found[4] = {};
    for (int size = row.from; size <= end; ++size, ++cuts) {
        SCOPED_TRACE("cut to " + std::to_string(size));
        queue.clear();
        queue.store("tail", tail);
        queue.store("head", head);
        queue.store(kOrder, data, row.first);
        if (!next.empty()) queue.store(kOrder + 1, next);
        queue.cut(row.suffix, size);
        size_t from = 0, to = kItems.size(); // of the whole items, where the reader is
        if (row.is_log) from = row.suffix[0] == 'h' ? std::max(size / 31, 1) - 1u : 5;
        while (!row.is_log && offset_of(to, row.first) > size) --to;
        const auto at = [](size_t n) { return kItems.begin() + static_cast<std::ptrdiff_t>(n); };
        const int result = found_after(queue, {at(from), at(to)}, row.next_file);
        hangs += result == 128 + SIGALRM;
        if (result <= kAltered) ++found[result];
        ASSERT_TRUE(result == kEverything || (result == kSome && !row.is_log)) << result;
    }
    const std::string each = std::string(row.name) + " cut at each byte: ";
    figure(each + "cuts", "-", cuts);
    figure(each + "hangs", "0", hangs);
    figure(each + "items altered, twice or out of order", "0", found[kAltered]);
    figure(each + row.loss, "0", found[kLosing]);
    figure(each + "cuts after which all later items came out",
           row.is_log ? std::to_string(cuts) : "-", found[kEverything]);
}

} // namespace

TEST(Cuts, at_any_byte_lose_nothing_that_stands_whole) {
    for (const Row &row : kRows) cut_at_every_byte(row);
}

TEST(LockFiles, beyond_256_in_a_process_are_refused_at_once) {
    constexpr int kMost = 256;
    const Queue directory;
    const auto path = [&](int n) { return directory.directory() + "/q" + std::to_string(n); };
    fqtrans trans;
    int result = 0, used = 0;
    Stalls stalls;
    int64_t start = 0;
    // Lock files whose inodes happen to end alike share a mutex: more queues than mutexes, then.
    for (; result >= 0 && used < 2 * kMost; ++used) {
        start = microseconds_now();
        result = fq_enqueue(-1, path(used).c_str(), "x", 1, &trans);
        if (result > 0) fq_enqueue_commit(-1, &trans);
    }
    const int away = fq_enqueue_away(-1, -1, 1, path(used).c_str(), "x", 1);
    const int64_t end = microseconds_now();
    const bool late = stalls.without_stalls(start, end) > 300000;
    figure("257 lock files in a process: results of the last, begun / single shot", "-2 / 2",
           std::to_string(result) + " / " + std::to_string(away));
    figure("257 lock files in a process: calls that ended late", "0", late);
    EXPECT_GE(used, kMost + 1);
}
