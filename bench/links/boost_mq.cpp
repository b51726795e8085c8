// boost::interprocess::message_queue.
#include <unistd.h>

#include <boost/interprocess/ipc/message_queue.hpp>

#include <memory>
#include <vector>

#include "bench/links/links.h"
#include "bench/links/runs.h"

namespace halvo::bench {

namespace {

namespace ipc = boost::interprocess;

struct BoostMqLink {
    BoostMqLink(const Shape &given, int lanes) : shape(given) {
        const std::string name = "halvo-bench-" + std::to_string(getpid());
        for (int lane = 0; lane < lanes; ++lane) {
            queues.push_back(std::make_unique<ipc::message_queue>(ipc::create_only, name.c_str(),
                                                                  shape.slots, shape.body));
            ipc::message_queue::remove(name.c_str()); // the forked processes inherit the mapping
        }
    }
    void enter() {}
    struct Writer : Body {
        Writer(BoostMqLink &link, int lane)
            : Body(link.shape), queue(*link.queues[static_cast<size_t>(lane)]) {}
        bool send(uint32_t length) {
            queue.send(body(), length, 0);
            return true;
        }
        ipc::message_queue &queue;
    };
    struct Reader {
        Reader(BoostMqLink &link, int lane)
            : queue(*link.queues[static_cast<size_t>(lane)]), body(link.shape.body) {}
        const char *receive() {
            ipc::message_queue::size_type got = 0;
            unsigned priority = 0;
            queue.receive(body.data(), body.size(), got, priority);
            return body.data();
        }
        ipc::message_queue &queue;
        std::vector<char> body;
    };
    Shape shape;
    std::vector<std::unique_ptr<ipc::message_queue>> queues;
};

} // namespace

const Link kBoostMq{"boost mq", throughput<BoostMqLink>, round_trip<BoostMqLink>};

} // namespace halvo::bench
