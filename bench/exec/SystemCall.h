#pragma once

// One system call with at most four arguments, all of them 0: enough for programs without a C library.
inline void SystemCall(long number) {
#if defined(__x86_64__)
    long result = number;
    __asm__ volatile("xor %%r10d, %%r10d\n\tsyscall"
                     : "+a"(result)
                     : "D"(0L), "S"(0L), "d"(0L)
                     : "rcx", "r10", "r11", "memory");
#elif defined(__aarch64__)
    __asm__ volatile("mov x8, %0\n\tmov x0, 0\n\tmov x1, 0\n\tmov x2, 0\n\tmov x3, 0\n\tsvc 0"
                     :
                     : "r"(number)
                     : "x0", "x1", "x2", "x3", "x8", "memory");
#else
#error "no system call written for this processor"
#endif
}
