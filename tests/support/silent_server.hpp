// A database server that takes connections and never answers: a unix socket
// named like the server's, <dir>/.s.PGSQL.<port>, that listens but is never
// read. The kernel completes a client's connection into its queue, and the
// client's first message waits there unread.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace rvtest {

class SilentServer {
  public:
    SilentServer(const std::string& dir, int port) : path_(dir + "/.s.PGSQL." + std::to_string(port)) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (path_.size() >= sizeof addr.sun_path) {
            throw std::runtime_error("socket path too long: " + path_);
        }
        path_.copy(addr.sun_path, path_.size());
        fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd_, 8) != 0) {
            std::perror(path_.c_str());
            close(fd_);
            throw std::runtime_error("cannot listen on " + path_);
        }
    }
    ~SilentServer() {
        close(fd_);
        unlink(path_.c_str());
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;

  private:
    std::string path_;
    int fd_ = -1;
};

}  // namespace rvtest
