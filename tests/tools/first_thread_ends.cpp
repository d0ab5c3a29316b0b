// first_thread_ends
//
// Begins a second thread, which does nothing until the process is killed, and ends the first: the process lives on,
// and for the kernel's tables it is a zombie without an image. Exit status 1, with a line on standard error, when it
// cannot.

#include <cstring>
#include <iostream>

#include <pthread.h>
#include <unistd.h>

namespace {

void* DoNothing(void* /*unused*/) {
    for (;;) {
        pause();
    }
}

} // namespace

int main() {
    pthread_t second{};
    if (const int error = pthread_create(&second, nullptr, DoNothing, nullptr); error != 0) {
        std::cerr << "first_thread_ends: no thread: " << std::strerror(error) << "\n";
        return 1;
    }
    pthread_exit(nullptr);
}
