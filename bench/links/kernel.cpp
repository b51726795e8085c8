// The kernel's queues.
#include <fcntl.h>
#include <mqueue.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <vector>

#include "bench/links/links.h"
#include "bench/links/runs.h"
#include "core/base/posix.h"

namespace halvo::bench {

namespace {

// Both ends of each lane as descriptors that the processes inherit.
struct DescriptorLink {
    struct Lane {
        Descriptor in, out;
    };
    DescriptorLink(const Shape &given, int lanes)
        : shape(given), ends(static_cast<size_t>(lanes)) {}
    void enter() {}
    const Lane &lane(int number) const { return ends[static_cast<size_t>(number)]; }
    Shape shape;
    std::vector<Lane> ends;
};

void write_whole(int fd, const char *body, uint32_t length) {
    if (write(fd, body, length) != static_cast<ssize_t>(length)) throw Failure("write");
}

void read_whole(int fd, char *body, uint32_t length) {
    for (uint32_t done = 0; done < length;) {
        const ssize_t got = read(fd, body + done, length - done);
        if (got <= 0) throw Failure("read");
        done += static_cast<uint32_t>(got);
    }
}

struct FileLink : DescriptorLink {
    using DescriptorLink::DescriptorLink;
    struct Writer : Body {
        Writer(FileLink &link, int lane) : Body(link.shape), fd(link.lane(lane).in.get()) {}
        bool send(uint32_t length) {
            write_whole(fd, body(), length);
            return true;
        }
        int fd;
    };
    struct Reader {
        Reader(FileLink &link, int lane) : fd(link.lane(lane).out.get()), body(link.shape.body) {}
        const char *receive() {
            read_whole(fd, body.data(), static_cast<uint32_t>(body.size()));
            return body.data();
        }
        int fd;
        std::vector<char> body;
    };
};

struct PipeLink : FileLink {
    PipeLink(const Shape &given, int lanes) : FileLink(given, lanes) {
        for (Lane &lane : ends) {
            int fds[2];
            if (pipe(fds) < 0) throw Failure("pipe");
            lane.out.reset(fds[0]);
            lane.in.reset(fds[1]);
        }
    }
};

struct SeqpacketLink : FileLink {
    SeqpacketLink(const Shape &given, int lanes) : FileLink(given, lanes) {
        for (Lane &lane : ends) {
            int fds[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds) < 0) throw Failure("socketpair");
            lane.out.reset(fds[0]);
            lane.in.reset(fds[1]);
        }
    }
};

// The most messages that a queue of an ordinary user holds.
long mq_depth() {
    long depth = 10;
    if (std::FILE *file = std::fopen("/proc/sys/fs/mqueue/msg_max", "re")) {
        if (std::fscanf(file, "%ld", &depth) != 1) depth = 10;
        std::fclose(file);
    }
    return depth;
}

struct PosixMqLink : DescriptorLink {
    PosixMqLink(const Shape &given, int lanes) : DescriptorLink(given, lanes) {
        mq_attr attributes{};
        attributes.mq_maxmsg = mq_depth();
        attributes.mq_msgsize = static_cast<long>(shape.body);
        const std::string name = "/halvo-bench-" + std::to_string(getpid());
        for (Lane &lane : ends) {
            const mqd_t queue = mq_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &attributes);
            if (queue < 0) throw Failure("mq_open");
            mq_unlink(name.c_str()); // the descriptors keep it
            lane.in.reset(queue);
        }
    }
    struct Writer : Body {
        Writer(PosixMqLink &link, int lane) : Body(link.shape), queue(link.lane(lane).in.get()) {}
        bool send(uint32_t length) {
            if (mq_send(queue, body(), length, 0) < 0) throw Failure("mq_send");
            return true;
        }
        mqd_t queue;
    };
    struct Reader {
        Reader(PosixMqLink &link, int lane)
            : queue(link.lane(lane).in.get()), body(link.shape.body) {}
        const char *receive() {
            if (mq_receive(queue, body.data(), body.size(), nullptr) < 0)
                throw Failure("mq_receive");
            return body.data();
        }
        mqd_t queue;
        std::vector<char> body;
    };
};

struct SysvMsgLink {
    SysvMsgLink(const Shape &, int lanes) {
        for (int lane = 0; lane < lanes; ++lane) {
            ids.push_back(msgget(IPC_PRIVATE, IPC_CREAT | 0600));
            if (ids.back() < 0) throw Failure("msgget");
        }
    }
    SysvMsgLink(const SysvMsgLink &) = delete;
    SysvMsgLink &operator=(const SysvMsgLink &) = delete;
    ~SysvMsgLink() {
        for (const int id : ids) msgctl(id, IPC_RMID, nullptr);
    }
    void enter() {}
    struct Message {
        long type = 1;
        char body[4096] = {};
    };
    struct Writer {
        Writer(SysvMsgLink &link, int lane) : id(link.ids[static_cast<size_t>(lane)]) {}
        char *body() { return message.body; } // the call wants the type in front of it
        bool send(uint32_t length) {
            if (msgsnd(id, &message, length, 0) < 0) throw Failure("msgsnd");
            return true;
        }
        int id;
        Message message;
    };
    struct Reader {
        Reader(SysvMsgLink &link, int lane) : id(link.ids[static_cast<size_t>(lane)]) {}
        const char *receive() {
            if (msgrcv(id, &message, sizeof message.body, 0, 0) < 0) throw Failure("msgrcv");
            return message.body;
        }
        int id;
        Message message;
    };
    std::vector<int> ids;
};

} // namespace

const Link kPipe{"pipe", throughput<PipeLink>, round_trip<PipeLink>};
const Link kSeqpacket{"seqpacket", throughput<SeqpacketLink>, round_trip<SeqpacketLink>};
const Link kPosixMq{"posix mq", throughput<PosixMqLink>, round_trip<PosixMqLink>};
const Link kSysvMsg{"sysv msg", throughput<SysvMsgLink>, round_trip<SysvMsgLink>};

} // namespace halvo::bench
