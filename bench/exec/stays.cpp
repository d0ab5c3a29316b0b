// The smallest program of its kind: it sleeps until it is killed.

#include <sys/syscall.h>

#include "exec/SystemCall.h"

extern "C" void _start() {
    for (;;) {
        SystemCall(SYS_ppoll);
    }
}
