// The power fails after any call that changes a file, and the disk holds what was forced to it and
// anything of the rest. A reader and a writer go on there; what comes out is compared with what had
// been acknowledged.
#include <set>

#include "tests/fq/queue_fixture.h"
#include "tests/proof/form.h"
#include "tests/proof/queue_calls.h"

using namespace halvo::test;

namespace {

constexpr unsigned kMostData = 10000; // bytes of an item
constexpr int kWayIn = 5000001;       // a file that ends here is full

// What was known at a moment of the run: numbers of items, which are written in their order.
struct Known {
    size_t call;         // calls that had been made
    int written = 0;     // acknowledged
    int under_way = 0;   // of the transaction that is not yet
    int read = 0;        // acknowledged
    int being_saved = 0; // by the commit that is not yet
};

struct Losses {
    int64_t states = 0, lost = 0, doubled = 0, stuck = 0, altered = 0;
    int64_t faults() const { return lost + doubled + stuck + altered; }
    std::string first; // what came out of the first disk with a fault
};

int item_of(const std::string &data) {
    return data.empty() || data[0] != 'i' ? -1 : std::atoi(data.c_str() + 1);
}

// A run of both sides. The reader also comes in the middle of what the writer forces.
class Run {
public:
    Run(const Queue &queue, std::minstd_rand &random)
        : queue_(queue), random_(random), record_(queue.path()) {
        prepare();
        note();
        record_.meanwhile = [this] {
            if (random_() % 3 == 0 && !reading_) read();
        };
        for (int step = 0; step < 14; ++step) random_() % 5 < 3 ? write() : read();
        record_.stop();
    }

    const Recorder &record() const { return record_; }
    const Known &known_after(size_t calls) const {
        size_t last = 0;
        while (last + 1 < known_.size() && known_[last + 1].call <= calls) ++last;
        return known_[last];
    }
    const std::string &data(int item) const { return data_[static_cast<size_t>(item)]; }

private:
    void prepare() {
        const int start = random_() % 2 ? kWayIn - 1 - static_cast<int>(random_() % 400) : 0;
        const int full = 161291 * 31;
        if (random_() % 4 == 0) return; // a new queue
        record_.add_base(".000000003", start, "");
        record_.add_base(".tail", random_() % 3 ? 0 : full, halvo::test::record(3, start));
        record_.add_base(".head", random_() % 3 ? 0 : full, halvo::test::record(3, start));
    }
    void note() {
        now_.call = record_.calls();
        known_.push_back(now_);
    }
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::string next_item() {
        const size_t item = data_.size(), length = below(12) == 0 ? 4000 + below(5000) : below(60);
        data_.push_back("i" + std::to_string(item) + " " +
                        std::string(length, static_cast<char>('a' + item % 26)));
        return data_.back();
    }
    void write() {
        const unsigned kind = below(6);
        std::vector<std::string> items;
        for (unsigned i = kind < 3 ? 2 + below(3) : 1; i > 0; --i) items.push_back(next_item());
        const int count = static_cast<int>(items.size());
        if (kind == 5) { // taken back
            fqtrans trans;
            queue_.begin(trans, items);
            fq_enqueue_rollback(-1, &trans);
            data_.resize(data_.size() - items.size());
            return;
        }
        now_.under_way = count;
        note();
        const int result = kind == 4 ? queue_.put_away(items[0]) : queue_.put(items);
        ASSERT_EQ(result, 0);
        now_.under_way = 0;
        now_.written += count;
        note();
    }
    void read() {
        reading_ = true;
        fqtrans trans;
        std::vector<std::string> items;
        queue_.read(trans, items, 1 + below(4), kMostData);
        const int count = static_cast<int>(items.size());
        if (count > 0 && below(5) == 0)
            fq_dequeue_rollback(-1, &trans);
        else if (count > 0) {
            now_.being_saved = count;
            note();
            EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
            now_.being_saved = 0;
            now_.read += count;
            note();
        }
        reading_ = false;
    }

    const Queue &queue_;
    std::minstd_rand &random_;
    Recorder record_;
    std::vector<std::string> data_; // of the items
    std::vector<Known> known_;
    Known now_{};
    bool reading_ = false;
};

// Takes all there is, then puts three and takes them, or the other way round.
std::vector<std::string> go_on(const Queue &queue, bool writer_first) {
    std::vector<std::string> got;
    const auto drain = [&] {
        while (got.size() < 1000) {
            const std::string data = queue.take(kMostData);
            if (data == "[0]") return;
            got.push_back(data);
            if (data[0] == '[') return;
        }
    };
    if (!writer_first) drain();
    if (queue.put_away("n0") != 0 || queue.put({"n1", "n2"}) != 0) got.push_back("[put]");
    drain();
    return got;
}

void judge(const Run &run, const Known &known, std::vector<std::string> got, Losses &losses) {
    ++losses.states;
    const std::vector<std::string> fresh{"n0", "n1", "n2"};
    if (got.size() < 3 || !std::equal(fresh.begin(), fresh.end(), got.end() - 3)) {
        ++losses.stuck;
        return;
    }
    got.resize(got.size() - 3);
    // A single item that was not forced may be torn: damage to a reader, until a writer removes it.
    std::erase(got, "[-1]");
    std::set<int> seen;
    for (const std::string &data : got) {
        const int item = item_of(data);
        if (item < 0 || item >= known.written + known.under_way || data != run.data(item)) {
            ++losses.altered;
            return;
        }
        losses.doubled += item < known.read || !seen.insert(item).second;
    }
    for (int item = known.read + known.being_saved; item < known.written; ++item)
        losses.lost += !seen.count(item);
    // A transaction whole or not at all, everything in its order.
    int under_way = 0;
    for (int item = known.written; item < known.written + known.under_way; ++item)
        under_way += static_cast<int>(seen.count(item));
    const int may_be_read = std::max(0, known.read + known.being_saved - known.written);
    losses.altered += under_way != 0 && under_way != known.under_way &&
                      under_way + may_be_read != known.under_way &&
                      under_way + std::max(0, known.read - known.written) != known.under_way;
}

std::string told(const Known &known, const std::vector<std::string> &got) {
    std::string text;
    for (const int items : {known.written, known.under_way, known.read, known.being_saved})
        text += std::to_string(items) + " ";
    text += "written, under way, read, being saved; came out:";
    for (const std::string &data : got) text += " " + data.substr(0, data.find(' '));
    return text + "\n";
}

Losses fail_everywhere(int states, std::minstd_rand &random) {
    Losses losses;
    const Queue running, after;
    while (losses.states < states && !testing::Test::HasFailure()) {
        running.clear();
        const Run run(running, random);
        for (size_t calls = 0; calls <= run.record().calls(); ++calls)
            for (const auto rest : {Recorder::nothing, Recorder::all, Recorder::anything,
                                    Recorder::anything, Recorder::anything}) {
                after.clear();
                run.record().build(after.path(), calls, rest, random);
                alarm(60); // stuck for good
                const bool writer_first = random() % 2;
                const std::vector<std::string> got = go_on(after, writer_first);
                judge(run, run.known_after(calls), got, losses);
                if (losses.faults() == 0 || !losses.first.empty()) continue;
                losses.first = (writer_first ? "a writer first; " : "a reader first; ") +
                               told(run.known_after(calls), got);
            }
    }
    alarm(0);
    return losses;
}

void report(const std::string &mode, const Losses &losses, const char *asked) {
    figure("power fails, " + mode + ": disks", "-", losses.states);
    figure("power fails, " + mode + ": acknowledged items lost", asked, losses.lost);
    figure("power fails, " + mode + ": items read and acknowledged, and read again", asked,
           losses.doubled);
    figure("power fails, " + mode + ": items altered, torn or in part", asked, losses.altered);
    figure("power fails, " + mode + ": queues stuck", asked, losses.stuck);
}

Losses measured(int mode, int states) {
    setenv("TMPDIR", "/dev/shm", 0); // the disks are built by the ten thousand
    std::minstd_rand random(seed());
    EXPECT_EQ(fq_set_durability(mode), 0);
    const StdoutCapture unseen;
    return fail_everywhere(states, random);
}

} // namespace

TEST(PowerLoss, takes_nothing_from_a_durable_queue) {
    const Losses losses = measured(FQ_DURABILITY_COMMIT, length(2000, 100000));
    report("durable", losses, "0");
    EXPECT_EQ(losses.faults(), 0) << losses.first;
    EXPECT_GE(losses.states, length(2000, 100000));
}

TEST(PowerLoss, of_a_queue_that_forces_nothing_is_counted) {
    const Losses losses = measured(FQ_DURABILITY_NONE, length(200, 20000));
    report("default", losses, "-");
    EXPECT_GT(losses.lost, 0) << "or the disks above lose nothing either";
}
