// A route out and its state file, beside a broker that answers as it is told.
#include "halvo/fq.h"
#include "tests/support/peer.h"
#include "tools/fixture/directory.h"
#include "tools/relay/route/route.h"

namespace halvo::relay {

// In place of the engine's: answers one batch, and then the route is to stop.
std::unique_ptr<Publisher> connect_publisher(const BrokerConfig &, unsigned) {
    struct Scripted : Publisher {
        void send(const std::string &, const Outgoing &) override {}
        std::vector<Verdict> answers(int, const Stop &stop) override {
            const_cast<Stop &>(stop) = true;
            return {Verdict::confirmed, Verdict::returned, Verdict::open};
        }
        BrokerError why_open() const override { return {BrokerError::lost, "silence"}; }
        void serve() override {}
        bool blocked() const override { return false; }
        std::string return_reason() const override { return "NO_ROUTE"; }
    };
    return std::make_unique<Scripted>();
}

} // namespace halvo::relay

using namespace halvo::relay;

TEST(RelayState, is_opened_beside_those_who_look_at_it) {
    const std::string directory = halvo::test::make_test_directory(), path = directory + "/state";
    StateFile(path, "id");
    halvo::test::Peer looking([&] {
        for (bool running;;)
            read_figures(
                path, "id", running, [](const Figures &, void *) {}, nullptr);
        return 0;
    });
    for (int i = 0; i < 3000; ++i) {
        ASSERT_NO_THROW(StateFile(path, "id"));
        usleep(20);
    }
    looking.kill(SIGKILL);
    halvo::test::remove_tree(directory);
}

TEST(RelayOut, what_was_answered_before_the_silence_is_not_sent_again) {
    const std::string directory = halvo::test::make_test_directory(), queue = directory + "/mo";
    for (const char *item : {"1", "2", "3"}) fq_enqueue_away(-1, -1, 1, queue.c_str(), item, 1);
    RouteConfig route;
    route.from = {Endpoint::file_queue, queue};
    route.to = {Endpoint::queue, "q"};
    route.wait_for_route = false;
    route.dead_letters = directory + "/dead";
    StateFile state(directory + "/state", "test");
    Stop stop{false};
    RouteContext context{{}, route, state, stop, Backoff(1, 1)};
    carry_out(context);
    EXPECT_EQ(state.figures().messages, 2U);
    EXPECT_EQ(open_file_source(queue, 0)->take(9, 0), 1U);
    halvo::test::remove_tree(directory);
}
