// serve_directory DIR
//
// Serves the directory's files over HTTP on a free port of 127.0.0.1, prints the port, and runs until
// its standard input ends.

#include <iostream>
#include <string>
#include <thread>

#include <httplib.h>

int main(int argc, char** argv) {
    httplib::Server server;
    if (argc != 2 || !server.set_mount_point("/", argv[1])) {
        std::cerr << "usage: serve_directory DIR\n";
        return 1;
    }
    const int port = server.bind_to_any_port("127.0.0.1");
    std::cout << port << std::endl;
    std::thread serving([&server] { server.listen_after_bind(); });
    for (std::string line; std::getline(std::cin, line);) {
    }
    server.stop();
    serving.join();
    return 0;
}
