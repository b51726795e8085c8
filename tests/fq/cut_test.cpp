// Files of a queue that end too early, as a power failure or an interrupted copy leaves them: cut at
// every byte of their last three items or records. And more lock files than a process can hold.
#include <sys/ipc.h>

#include <sstream>

#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/proof/stalls.h"
#include "tests/support/peer.h"

using namespace halvo::test;

namespace {

constexpr int kOrder = 3;         // of the first data file
constexpr int kRecord = 31;       // bytes of a position record
constexpr unsigned kSeconds = 20; // after which a process counts as hanging
using Items = std::vector<std::string>;

// What came out, without the results that end a drain.
Items items_in(const std::string &text) {
    std::istringstream in(text);
    Items items;
    for (std::string item; in >> item;)
        if (item[0] != '[') items.push_back(item);
    return items;
}

// Whether a list begins with another, and goes on with some of a third in its order.
bool begins(const Items &list, const Items &first, const Items &then) {
    if (list.size() < first.size() || !std::equal(first.begin(), first.end(), list.begin()))
        return false;
    auto at = list.begin() + static_cast<std::ptrdiff_t>(first.size());
    for (const std::string &item : then)
        if (at != list.end() && *at == item) ++at;
    return at == list.end();
}

Items operator+(Items a, const Items &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class Cuts : public testing::Test {
protected:
    Queue queue;
    const Items in_file{"one", "second", "3rd", "number4", "5", "sixth"};
    const Items later{"new1", "newer2"};
    int cuts = 0, hangs = 0, lost = 0, altered = 0, beyond = 0;

    // Items at an offset of the first file.
    void put_items(int offset) {
        queue.store("tail", record(kOrder, offset));
        for (const std::string &item : in_file) ASSERT_EQ(queue.put({item}), 0);
    }
    // A reader takes what there is, a writer and a reader go on. `whole` must come out first, then
    // may `more` and what is new.
    void go_on(const Items &whole, const Items &more) {
        enum { fine, all_of_it, loses, alters };
        Peer others([&] {
            const halvo::test::StdoutCapture unseen;
            alarm(kSeconds);
            std::string got = queue.drain();
            if (queue.put({later[0]}) != 0 || queue.put_away(later[1]) != 0) return int{alters};
            got += " " + queue.drain();
            const Items items = items_in(got);
            if (begins(items, whole, more + later))
                return int{items.size() == (whole + more + later).size() ? all_of_it : fine};
            return int{begins(items, {}, whole + more + later) ? loses : alters};
        });
        const int result = others.wait();
        ++cuts;
        hangs += result == 128 + SIGALRM;
        lost += result == loses;
        altered += result == alters;
        beyond += result == all_of_it;
        ASSERT_TRUE(result == fine || result == all_of_it) << result;
    }
    void report(const std::string &file, const std::string &loss, const std::string &after) const {
        figure(file + " cut at each byte: cuts", "-", cuts);
        figure(file + " cut at each byte: hangs", "0", hangs);
        figure(file + " cut at each byte: items altered, twice or out of order", "0", altered);
        figure(file + " cut at each byte: " + loss, "0", lost);
        figure(file + " cut at each byte: cuts after which all later items came out",
               after == "all" ? std::to_string(cuts) : after, beyond);
    }
    // The offset of an item in the file, when the first one stands at `first`.
    int offset_of(size_t item, int first) const {
        for (size_t i = 0; i < item; ++i) first += static_cast<int>(in_file[i].size()) + 22;
        return first;
    }

    // Cuts the file of the items at every byte from the third item from the end on.
    void cut_data(int first, const Items &in_next_file) {
        put_items(first);
        for (const std::string &item : in_next_file) ASSERT_EQ(queue.put({item}), 0);
        const std::string data = queue.bytes(kOrder), tail = queue.bytes("tail");
        const std::string next = queue.bytes(kOrder + 1);
        const size_t shown = in_file.size() - (in_next_file.empty() ? 3 : 2); // the end is an item
        for (int size = offset_of(shown, first); size <= static_cast<int>(data.size()); ++size) {
            SCOPED_TRACE("cut to " + std::to_string(size));
            queue.clear();
            queue.store("tail", tail);
            queue.store("head", record(kOrder, first));
            queue.store(kOrder, data.substr(0, static_cast<size_t>(size)));
            if (!in_next_file.empty()) queue.store(kOrder + 1, next);
            size_t whole = 0;
            while (whole < in_file.size() && offset_of(whole + 1, first) <= size) ++whole;
            const auto until = in_file.begin() + static_cast<std::ptrdiff_t>(whole);
            go_on(Items(in_file.begin(), until), in_next_file);
            if (HasFailure()) return;
        }
    }
    // Cuts a log at every byte from `from` on. What comes out then begins with the item that the
    // last whole record names.
    void cut_log(const std::string &suffix, int from) {
        put_items(0);
        for (int taken = 0; taken < 5; ++taken) queue.take();
        const std::string data = queue.bytes(kOrder);
        const std::string logs[] = {queue.bytes("tail"), queue.bytes("head")};
        const std::string &log = logs[suffix == "head"];
        for (int size = from; size <= static_cast<int>(log.size()); ++size) {
            SCOPED_TRACE(suffix + " cut to " + std::to_string(size));
            queue.clear();
            queue.store(kOrder, data);
            queue.store("tail", logs[0]);
            queue.store("head", logs[1]);
            queue.cut(suffix, size);
            const std::ptrdiff_t read = suffix == "head" ? std::max(size / kRecord - 1, 0) : 5;
            go_on(Items(in_file.begin() + read, in_file.end()), {});
            if (HasFailure()) return;
        }
    }
};

} // namespace

TEST_F(Cuts, of_a_data_file) {
    cut_data(0, {});
    report("last data file", "items lost that stood whole before the cut", "-");
}

TEST_F(Cuts, of_a_data_file_that_has_been_ended) {
    cut_data(4999970 - offset_of(in_file.size() - 2, 0), {"next"});
    report("ended data file", "items lost that stood whole before the cut", "-");
}

TEST_F(Cuts, of_the_writers_log) {
    cut_log("tail", kRecord * 4); // of seven records
    report("writer's position log", "items lost", "all");
    EXPECT_EQ(beyond, cuts);
}

TEST_F(Cuts, of_the_readers_log) {
    cut_log("head", 0); // down to nothing: then everything is read again
    report("reader's position log", "items lost", "all");
    EXPECT_EQ(beyond, cuts);
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
    EXPECT_EQ(result, -2);
    EXPECT_EQ(away, 2);
    EXPECT_FALSE(late);
}
