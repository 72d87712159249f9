#include "sys/durable_append.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "sys/file_io.hpp"

namespace rv {

bool DurableAppend::open(const std::string& path, bool fresh) {
    close();
    path_ = path;
    why_.clear();
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (fresh ? O_TRUNC : 0);
    fd_ = ::open(path.c_str(), flags, 0644);
    return fd_ >= 0 || failed("cannot open");
}

bool DurableAppend::append(std::string_view line) {
    if (fd_ < 0) {
        why_ = "cannot write " + path_ + ": not open";
        return false;
    }
    std::string whole(line);
    whole += '\n';
    if (!write_fully(fd_, whole)) {
        return failed("cannot write");
    }
    while (::fdatasync(fd_) != 0) {
        if (errno != EINTR) {
            return failed("cannot write");
        }
    }
    return true;
}

void DurableAppend::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

bool DurableAppend::failed(const char* what) {
    why_ = std::string(what) + " " + path_ + ": " + std::strerror(errno);
    return false;
}

std::string file_digest(const std::string& path) {
    FilePtr in(std::fopen(path.c_str(), "rb"));
    if (!in) {
        return "";
    }
    std::uint64_t hash = 14695981039346656037ULL;
    char buffer[8192];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, in.get())) > 0) {
        for (std::size_t i = 0; i < n; ++i) {
            hash = (hash ^ static_cast<unsigned char>(buffer[i])) * 1099511628211ULL;
        }
    }
    if (std::ferror(in.get())) {
        return "";
    }
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

}  // namespace rv
