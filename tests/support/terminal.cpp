#include "support/terminal.hpp"

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace rvtest {

namespace {

constexpr char kMark = '\x01';  // no program under test writes it

// Appends what `fd` has to `text`, waiting at most `ms` for the first byte;
// false when nothing came.
bool read_some(int fd, std::string& text, int ms) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, ms) <= 0) {
        return false;
    }
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return n > 0;
}

}  // namespace

Pty::Pty(int columns) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(columns);
    if (openpty(&reader_, &terminal_, nullptr, nullptr, &size) != 0) {
        throw std::runtime_error("openpty failed");
    }
    termios raw{};
    tcgetattr(terminal_, &raw);
    cfmakeraw(&raw);
    tcsetattr(terminal_, TCSANOW, &raw);
}

Pty::~Pty() {
    close(terminal_);
    close(reader_);
}

void Pty::collect(int ms) { read_some(reader_, came_, ms); }

std::string Pty::written() {
    if (write(terminal_, &kMark, 1) != 1) {
        throw std::runtime_error("cannot write to the pseudo-terminal");
    }
    while (came_.find(kMark) == std::string::npos) {
        if (!read_some(reader_, came_, 10000)) {
            throw std::runtime_error("the mark never came back from the pseudo-terminal");
        }
    }
    const std::size_t mark = came_.find(kMark);
    std::string text = came_.substr(0, mark);
    came_.erase(0, mark + 1);
    return text;
}

RunResult run_on_terminal(const std::vector<std::string>& argv, const Env& env) {
    Pty pty;
    std::atomic<bool> done{false};
    Background program(argv, env, "", pty.terminal());
    std::thread reader([&] {
        while (!done) {
            pty.collect(100);
        }
    });
    RunResult result = program.wait();
    done = true;
    reader.join();
    result.err = pty.written();
    return result;
}

}  // namespace rvtest
