#include <halvo/halvo.hpp>

#include <array>
#include <cstdio>
#include <string_view>

using namespace std::chrono_literals;

// Sends one message through channel MT01 and reads it back: hello KEYFILE
int main(int argc, char **argv) {
    if (argc != 2 || !halvo::attach(argv[1])) return 1;
    auto out = halvo::Writer::open("MT01", "hello", 1s);
    auto in = halvo::Reader::open("MT01", "hello", 1s);
    if (!out || !in) return printr("hello cannot open MT01:", out ? in.error() : out.error()), 1;

    const std::string_view text = "hello, world";
    const auto written = out->write(1, std::as_bytes(std::span(text)), 1s);
    if (!written) return printr("hello failed:", written.error()), 1;
    std::array<std::byte, 256> room;
    const auto message = in->read(room, 1s);
    if (!message) return printr("hello failed:", message.error()), 1;
    std::printf("%.*s\n", static_cast<int>(message->body.size()),
                reinterpret_cast<const char *>(message->body.data()));
}
