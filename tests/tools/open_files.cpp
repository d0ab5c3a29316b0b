// open_files FOLDER COUNT DONE: opens the files FOLDER/0 to FOLDER/COUNT-1 for reading, one after the
// other and as fast as it can, makes the empty file DONE, and waits to be killed.

#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    const std::string folder = std::string(argv[1]) + "/";
    const long count = std::strtol(argv[2], nullptr, 10);
    for (long i = 0; i < count; ++i) {
        const int fd = open((folder + std::to_string(i)).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return 1;
        }
        close(fd);
    }
    close(open(argv[3], O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    pause();
    return 0;
}
