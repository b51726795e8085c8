#include <halvo/frx.h>
#include <stdio.h>
#include <string.h>

/* Builds a message in its slot, looks at it there and releases it, without a copy: in_place KEYFILE */
int main(int argc, char **argv) {
    FrxChannel out, in; /* the library remembers their addresses */
    if (argc != 2 || frx_initialize(argv[1]) != ESMS_OK) return 1;
    int channel = frx_channelByName("MT01");
    int result = frx_openChannel(&out, "in_place", channel, 'w', 1000);
    if (result == ESMS_OK) result = frx_openChannel(&in, "in_place", channel, 'r', 1000);
    if (result != ESMS_OK) return printr("in_place cannot open MT01:", result), 1;

    qmsg *room = NULL;
    result = frx_reserve(&out, 12, &room, 1000);
    if (result == ESMS_OK) {
        memcpy((char *)room + offsetof(qmsg, data), "hello, world", 12);
        result = frx_publish(&out, 1, 12);
    }
    const qmsg *slot = NULL;
    int length = result == ESMS_OK ? frx_peek(&in, &slot, 1000) : result;
    if (length < 0) printr("in_place failed:", length);
    if (length > 0) printf("%.*s\n", length, (const char *)slot + offsetof(qmsg, data));
    if (length > 0) frx_release(&in, 0);
    return frx_closeChannel(&in) | frx_closeChannel(&out) | (length <= 0);
}
