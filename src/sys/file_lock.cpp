#include "sys/file_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "sys/timefmt.hpp"

namespace rv {

namespace {

constexpr std::size_t kReadChunk = 4096;
constexpr std::size_t kStampLength = 19;

// All of `fd` from its start (at most a few pages: the note is short).
std::string read_all(int fd) {
    std::string text;
    char buf[kReadChunk];
    ssize_t n = 0;
    while ((n = pread(fd, buf, sizeof buf, static_cast<off_t>(text.size()))) > 0 && text.size() < 4 * kReadChunk) {
        text.append(buf, static_cast<std::size_t>(n));
    }
    return text;
}

// This process's command line, its arguments separated by blanks.
std::string own_command_line() {
    const int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return "";
    }
    std::string line = read_all(fd);
    close(fd);
    while (!line.empty() && line.back() == '\0') {
        line.pop_back();
    }
    for (char& c : line) {
        if (c == '\0' || c == '\n') {
            c = ' ';
        }
    }
    return line;
}

// "YYYY-MM-DD hh:mm:ss": the date and time of time_get's default form.
std::string now_text() {
    std::string stamp;
    time_get(stamp);
    return stamp.substr(0, kStampLength);
}

// The note of the holder: one "key=value" line each.
std::string note() {
    return "pid=" + std::to_string(getpid()) + "\nstarted=" + now_text() + "\ncommand=" + own_command_line() + "\n";
}

LockHolder parse_note(std::string_view text) {
    LockHolder holder;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const auto eq = line.find('=');
        const std::string_view key = line.substr(0, eq);
        std::string value(eq == std::string_view::npos ? std::string_view() : line.substr(eq + 1));
        if (key == "pid") {
            holder.pid = value;
        } else if (key == "started") {
            holder.started = value;
        } else if (key == "command") {
            holder.command = value;
        }
    }
    return holder;
}

}  // namespace

FileLock::Outcome FileLock::acquire(const std::string& path) {
    release();
    holder_ = {};
    error_ = 0;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error_ = errno;
        return Outcome::failed;
    }
    int r = 0;
    while ((r = flock(fd, LOCK_EX | LOCK_NB)) != 0 && errno == EINTR) {
    }
    if (r != 0) {
        const int err = errno;
        if (err == EWOULDBLOCK) {
            holder_ = parse_note(read_all(fd));
        }
        close(fd);
        error_ = err;
        return err == EWOULDBLOCK ? Outcome::busy : Outcome::failed;
    }
    // Written in one piece after the old note is gone, so that a reader sees
    // no note or the whole one, never a mix of two.
    const std::string text = note();
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        error_ = errno;
        close(fd);
        return Outcome::failed;
    }
    fd_ = fd;
    return Outcome::locked;
}

void FileLock::release() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

}  // namespace rv
