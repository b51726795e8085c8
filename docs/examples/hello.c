#include <halvo/frx.h>
#include <stdio.h>
#include <stdlib.h>

/* Sends one message through channel MT01 and reads it back: hello KEYFILE */
int main(int argc, char **argv) {
    FrxChannel out, in; /* the library remembers their addresses */
    if (argc != 2 || frx_initialize(argv[1]) != ESMS_OK) return 1;
    int channel = frx_channelByName("MT01");
    int result = frx_openChannel(&out, "hello", channel, 'w', 1000);
    if (result == ESMS_OK) result = frx_openChannel(&in, "hello", channel, 'r', 1000);
    if (result != ESMS_OK) return printr("hello cannot open MT01:", result), 1;

    result = frx_write(&out, 1, "hello, world", 12, 1000);
    qmsg *message = malloc((size_t)frx_sizeOfBlock(channel));
    if (result == ESMS_OK && message) result = frx_read(&in, message, 1000);
    if (result < 0) printr("hello failed:", result);
    if (result > 0) printf("%.*s\n", result, (const char *)message->data);
    free(message);
    return frx_closeChannel(&in) | frx_closeChannel(&out) | (result <= 0);
}
