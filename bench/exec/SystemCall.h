/* One system call, for programs without a C library. */
#pragma once

#if defined(__x86_64__)
static long SystemCall(long number, long a, long b, long c, long d) {
    register long fourth __asm__("r10") = d;
    long result;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(fourth)
                     : "rcx", "r11", "memory");
    return result;
}
#elif defined(__aarch64__)
static long SystemCall(long number, long a, long b, long c, long d) {
    register long x8 __asm__("x8") = number;
    register long x0 __asm__("x0") = a;
    register long x1 __asm__("x1") = b;
    register long x2 __asm__("x2") = c;
    register long x3 __asm__("x3") = d;
    __asm__ volatile("svc 0" : "+r"(x0) : "r"(x8), "r"(x1), "r"(x2), "r"(x3) : "memory");
    return x0;
}
#else
#error "no system call written for this processor"
#endif
