#include <halvo/halvo.hpp>

#include <cstdio>
#include <string_view>

using namespace std::chrono_literals;

// The same with halvo.hpp: in_place KEYFILE
int main(int argc, char **argv) {
    if (argc != 2 || !halvo::attach(argv[1])) return 1;
    auto out = halvo::Writer::open("MT01", "in_place", 1s);
    auto in = halvo::Reader::open("MT01", "in_place", 1s);
    if (!out || !in) return printr("in_place cannot open MT01:", out ? in.error() : out.error()), 1;

    const std::string_view text = "hello, world";
    auto room = out->reserve(text.size(), 1s);
    if (!room) return printr("in_place failed:", room.error()), 1;
    std::memcpy(room->data(), text.data(), text.size());
    if (!out->publish(1, text.size())) return 1;

    auto message = in->peek(1s);
    if (!message) return printr("in_place failed:", message.error()), 1;
    std::printf("%.*s\n", static_cast<int>(message->body.size()),
                reinterpret_cast<const char *>(message->body.data()));
    return in->release() ? 0 : 1;
}
