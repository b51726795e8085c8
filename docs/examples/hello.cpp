#include <halvo/frx.h>

#include <cstdio>
#include <string_view>
#include <vector>

// Sends one message through channel MT01 and reads it back: hello KEYFILE
int main(int argc, char **argv) {
    FrxChannel out, in; // the library remembers their addresses
    if (argc != 2 || frx_initialize(argv[1]) != ESMS_OK) return 1;
    const int channel = frx_channelByName("MT01");
    if (frx_openChannel(&out, "hello", channel, 'w', 1000) != ESMS_OK) return 1;
    if (frx_openChannel(&in, "hello", channel, 'r', 1000) != ESMS_OK) return 1;

    const std::string_view text = "hello, world";
    frx_write(&out, 1, text.data(), static_cast<uint32_t>(text.size()), 1000);
    std::vector<qmsg> slot(static_cast<size_t>(frx_sizeOfBlock(channel)) / sizeof(qmsg) + 1);
    const int length = frx_read(&in, slot.data(), 1000);
    if (length < 0) return printr("hello failed:", length), 1;
    std::printf("%.*s\n", length, reinterpret_cast<const char *>(slot[0].data));
    return frx_closeChannel(&in) | frx_closeChannel(&out);
}
