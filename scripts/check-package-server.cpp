// A static file server on 127.0.0.1 for scripts/check-package.sh: serves one folder on a free port,
// writes that port to a file once the socket listens, and runs until it is killed.
//
// usage: check-package-server DIR PORT_FILE
#include <httplib.h>

#include <cstdio>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: check-package-server DIR PORT_FILE\n");
        return 2;
    }
    httplib::Server server;
    if (!server.set_mount_point("/", argv[1])) {
        std::fprintf(stderr, "check-package-server: cannot serve %s\n", argv[1]);
        return 1;
    }
    const int port = server.bind_to_any_port("127.0.0.1");
    if (port <= 0) {
        std::fprintf(stderr, "check-package-server: cannot bind to 127.0.0.1\n");
        return 1;
    }
    // Written beside the target and renamed, so a reader never sees a half-written number.
    const std::string partial = std::string(argv[2]) + ".part";
    {
        std::ofstream out(partial);
        out << port << "\n";
        if (!out) return 1;
    }
    if (std::rename(partial.c_str(), argv[2]) != 0) return 1;
    return server.listen_after_bind() ? 0 : 1;
}
