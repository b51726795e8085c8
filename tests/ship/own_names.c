/* A host program with names of its own that the library uses too. The library must go on with its
 * own functions and variables. */
#include <halvo/frx.h>
#include <stdio.h>
#include <stdlib.h>

#define OWN(name)                                                                                  \
    int name(void) {                                                                               \
        puts("the library called the program's " #name);                                           \
        exit(3);                                                                                   \
    }
OWN(readline)
OWN(q_read)
OWN(q_write)
OWN(q_gettime)
OWN(sem_postx)
OWN(sem_rqst)
OWN(q_open_wait)
OWN(reg_wait_thread)
int mutex = 1, qm = 2, shmblock = 3, semPosts = 4, goLoop = 0, keySig = 5;

int main(int argc, char **argv) {
    FrxChannel out, in;
    if (argc != 2 || frx_initialize(argv[1]) != ESMS_OK) return 1;
    if (frx_openChannel(&out, "own", 0, 'w', 1000) != ESMS_OK) return 1;
    if (frx_openChannel(&in, "own", 0, 'r', 1000) != ESMS_OK) return 1;
    qmsg *slot = malloc((size_t)frx_sizeOfBlock(0));
    if (!slot || frx_write(&out, 1, "x", 1, 1000) != ESMS_OK) return 1;
    if (frx_read(&in, slot, 1000) != 1 || frx_read(&in, slot, 50) != ESMS_TIMEOUT) return 1;
    free(slot);
    return mutex + qm + shmblock + semPosts + goLoop + keySig == 15 ? 0 : 2;
}
