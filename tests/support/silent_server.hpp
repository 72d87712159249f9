// A database server that takes connections and never answers: a unix socket
// named like the server's, <dir>/.s.PGSQL.<port>, that listens but is never
// read. The kernel completes a client's connection into its queue, and the
// client's first message waits there unread.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <system_error>

namespace rvtest {

struct SilentServer {
    SilentServer(const std::string& dir, int port) : path(dir + "/.s.PGSQL." + std::to_string(port)) {
        sockaddr_un addr{AF_UNIX, {}};
        if (path.size() >= sizeof addr.sun_path) throw std::length_error("socket path too long: " + path);
        path.copy(addr.sun_path, path.size());
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0) {
            throw std::system_error(errno, std::generic_category(), "cannot listen on " + path);
        }
    }
    ~SilentServer() { close(fd), unlink(path.c_str()); }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

    const std::string path;
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
};

}  // namespace rvtest
