/* The smallest program that stays: it sleeps until it is killed. */
#include <sys/syscall.h>

#include "SystemCall.h"

void _start(void) {
    for (;;) {
        SystemCall(SYS_ppoll, 0, 0, 0, 0);
    }
}
