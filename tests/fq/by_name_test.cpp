// What the path names is the queue, whatever operators do to the files: between two transactions,
// while a transaction runs, and to the descriptors that are kept.
#include <filesystem>

#include "tests/fq/queue_fixture.h"

using namespace halvo::test;
namespace fs = std::filesystem;

namespace {

// A queue in a directory of its own, which may be moved; both sides have been used. Right after the
// files were made, and when their directory has been left alone for a while.
class ByName : public testing::TestWithParam<bool> {
protected:
    TestDirectory place;
    const std::string dir = place.path("live"), moved = place.path("moved");
    const QueueAt queue{dir + "/q"};

    ByName() {
        fs::create_directory(dir);
        EXPECT_EQ(queue.put_away("one"), 0);
        EXPECT_EQ(queue.put_away("two"), 0);
        EXPECT_EQ(queue.take(), "one");
        rest();
    }
    // Lets the directory's time pass, and each side look at it then.
    void rest() const {
        if (!GetParam()) return;
        usleep(20000);
        for (const char mode : {'w', 'r'}) {
            fqtrans trans{};
            std::strcpy(trans.path, queue.path());
            EXPECT_EQ(fq_lock(mode, &trans), 31);
            EXPECT_EQ(fq_unlock(&trans), 0);
        }
        usleep(20000);
    }
    bool others_take(const std::string &item) const {
        return Peer([&] { return queue.take() == item ? 0 : 1; }).wait() == 0;
    }
    void replace_by_copy(const char *suffix) const {
        fs::copy_file(queue.file(suffix), queue.file("copy"));
        fs::rename(queue.file("copy"), queue.file(suffix));
    }
    void replace_directory_by_copy(const std::string &old) const {
        fs::copy(dir, moved);
        fs::rename(dir, old);
        fs::rename(moved, dir);
    }
    int descriptor_of(const char *suffix) const {
        for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (fs::read_symlink(entry.path(), gone) == queue.file(suffix))
                return std::atoi(entry.path().filename().c_str());
        }
        return -1;
    }
};

const char *const kData = "000000000";

} // namespace

INSTANTIATE_TEST_SUITE_P(, ByName, testing::Bool(),
                         [](const auto &kind) { return kind.param ? "at_rest" : "at_once"; });

TEST_P(ByName, a_directory_replaced_by_a_copy_is_the_copy) {
    replace_directory_by_copy(dir + ".old");
    EXPECT_EQ(queue.put_away("three"), 0);
    EXPECT_TRUE(others_take("two"));
    EXPECT_EQ(queue.take(), "three");
    EXPECT_EQ(QueueAt(dir + ".old/q").drain(), "two");
}

TEST_P(ByName, a_relative_path_counts_with_its_directory) {
    fs::create_directory(moved);
    const QueueAt here("q");
    fs::current_path(dir);
    EXPECT_EQ(here.put_away("live"), 0);
    fs::current_path(moved);
    EXPECT_EQ(here.put_away("other"), 0);
    EXPECT_EQ(here.take(), "other");
    // A transaction stays where it was begun.
    fqtrans trans;
    EXPECT_GT(here.begin(trans, {"more"}), 0);
    fs::current_path(dir);
    EXPECT_GT(fq_enqueue_next(-1, "most", 4, &trans), 0);
    EXPECT_EQ(fq_enqueue_commit(-1, &trans), 0);
    EXPECT_EQ(here.drain(), "two live");
    fs::current_path(moved);
    EXPECT_EQ(here.drain(), "more most");
    fs::current_path("/");
}

TEST_P(ByName, a_data_file_renamed_or_replaced_is_left_alone) {
    fs::rename(queue.file(kData), queue.file("away"));
    const auto size = fs::file_size(queue.file("away"));
    EXPECT_EQ(queue.put_away("three"), 0);
    EXPECT_EQ(fs::file_size(queue.file("away")), size);
    EXPECT_TRUE(queue.has(kData));
    // By a copy, while a hard link to the old one exists.
    fs::create_hard_link(queue.file(kData), queue.file("link"));
    const auto linked = fs::file_size(queue.file("link"));
    replace_by_copy(kData);
    EXPECT_EQ(queue.put_away("four"), 0);
    EXPECT_EQ(fs::file_size(queue.file("link")), linked);
    fs::copy_file(queue.file(kData), queue.file("copy"));
    queue.store("head", record(0, 50));
    EXPECT_EQ(queue.take(), "three");
    fs::rename(queue.file("copy"), queue.file(kData));
    EXPECT_TRUE(others_take("four"));
}

TEST_P(ByName, a_lock_file_replaced_by_rename_is_the_new_one) {
    for (const char *suffix : {"wrlk", "rdlk"}) {
        fs::create_hard_link(queue.file(suffix), queue.file(suffix) + ".link"); // it keeps a name
        replace_by_copy(suffix);
    }
    Signal held;
    Peer holder([&] {
        fqtrans trans;
        if (queue.begin(trans, {"theirs"}) < 0) return 1;
        held.send();
        usleep(100000);
        return fq_enqueue_commit(-1, &trans);
    });
    ASSERT_TRUE(held.wait());
    EXPECT_EQ(queue.put_away("ours"), 0);
    EXPECT_EQ(holder.wait(), 0);
    EXPECT_EQ(queue.drain(), "two theirs ours");
}

TEST_P(ByName, a_commit_into_a_file_that_is_not_the_queues_any_more_fails) {
    const std::pair<const char *, std::function<void()>> faults[] = {
        {"unlinked", [&] { queue.remove(kData); }},
        {"renamed", [&] { fs::rename(queue.file(kData), queue.file("away")); }},
        {"replaced", [&] { replace_by_copy(kData); }},
        {"directory replaced", [&] { replace_directory_by_copy(moved + ".old"); }},
        {"lock file replaced", [&] { replace_by_copy("wrlk"); }},
    };
    for (const auto &[what, fault] : faults)
        for (const bool batch : {false, true}) {
            SCOPED_TRACE(what);
            fs::remove_all(moved + ".old");
            fqtrans trans;
            rest();
            ASSERT_GT(queue.begin(trans, {"lost"}), 0);
            ASSERT_TRUE(!batch || fq_enqueue_next(-1, "too", 3, &trans) > 0);
            fault();
            EXPECT_LT(fq_enqueue_commit(-1, &trans), 0);
            EXPECT_EQ(queue.put_away("next"), 0) << "the side is free";
            queue.remove("head");
            queue.remove("away");
            const std::string all = queue.drain();
            EXPECT_EQ(all.find("lost"), std::string::npos) << all;
        }
}

TEST_P(ByName, a_reader_deletes_no_file_of_a_queue_begun_in_the_place_of_its_own) {
    queue.store(0, one + kEndItem);
    queue.store(1, two);
    queue.store("head", record(0, 0));
    rest();
    fqtrans trans;
    std::vector<std::string> items;
    EXPECT_EQ(queue.read(trans, items), 0);
    fs::rename(dir, moved);
    fs::create_directory(dir);
    EXPECT_EQ(queue.put_away("new"), 0);
    EXPECT_EQ(fq_dequeue_commit(-1, &trans), 0);
    EXPECT_EQ(queue.drain(), "new");
}

TEST_P(ByName, a_kept_descriptor_closed_by_the_host_is_opened_again) {
    for (const char *suffix : {"wrlk", "tail", kData, "rdlk", "head"}) {
        SCOPED_TRACE(suffix);
        const int fd = descriptor_of(suffix);
        EXPECT_TRUE(fd < 0 || close(fd) == 0);
        const halvo::Descriptor hosts(open(place.path("hosts").c_str(), O_RDWR | O_CREAT, 0666));
        EXPECT_EQ(queue.put_away(suffix), 0);
        EXPECT_EQ(fs::file_size(place.path("hosts")), 0u);
    }
    EXPECT_EQ(queue.drain(), "two wrlk tail 000000000 rdlk head");
}
