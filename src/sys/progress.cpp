#include "sys/progress.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <csignal>
#include <utility>

#include "sys/strings.hpp"

namespace rv {

namespace {

constexpr std::string_view kErase = "\r\x1b[K";

// The line on show and its file, or nullptr and -1; the file is read by
// signal handlers.
ProgressLine* gShown = nullptr;
volatile sig_atomic_t gShownFd = -1;

// Writes `text` to the terminal `fd`. SIGTTOU is held back meanwhile: while
// a child's process group has the terminal the tool is in the background,
// and a terminal set to stop background writers lets it write then.
void write_all(int fd, std::string_view text) {
    sigset_t ttou;
    sigset_t before;
    sigemptyset(&ttou);
    sigaddset(&ttou, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &ttou, &before);
    while (!text.empty()) {
        const ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;  // a terminal that went away takes no progress
        }
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// "m:ss", or "h:mm:ss" from an hour on.
std::string duration_text(std::uint64_t seconds) {
    char text[48];
    const std::uint64_t h = seconds / 3600;
    const unsigned m = static_cast<unsigned>(seconds / 60 % 60);
    const unsigned s = static_cast<unsigned>(seconds % 60);
    if (h > 0) {
        std::snprintf(text, sizeof text, "%llu:%02u:%02u", static_cast<unsigned long long>(h), m, s);
    } else {
        std::snprintf(text, sizeof text, "%u:%02u", m, s);
    }
    return text;
}

// `text` cut to at most `width` bytes, not inside a UTF-8 character.
std::string_view cut(std::string_view text, std::size_t width) {
    if (text.size() <= width) {
        return text;
    }
    std::size_t end = width;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

std::int64_t steady_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string progress_text(const ProgressState& state) {
    std::string text(state.label);
    text += ": " + with_thousands(state.done);
    if (state.total) {
        text += " of " + with_thousands(*state.total);
    }
    text += " rows";
    if (!state.rate) {
        return text;
    }
    text += ", " + with_thousands(static_cast<std::size_t>(std::llround(*state.rate))) + " rows/s";
    if (state.total && *state.rate > 0 && state.done <= *state.total) {
        const double left = static_cast<double>(*state.total - state.done) / *state.rate;
        text += ", " + duration_text(static_cast<std::uint64_t>(std::ceil(left))) + " left";
    }
    return text;
}

ProgressLine::ProgressLine(int fd, std::string label, std::optional<std::uint64_t> total,
                           ProgressClock clock)
    : fd_(fd),
      label_(std::move(label)),
      total_(total),
      clock_(std::move(clock)),
      live_(::isatty(fd) == 1) {
    if (!live_) {
        return;
    }
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 1) {
        width_ = size.ws_col;
    }
    base_at_ = now();
}

ProgressLine::~ProgressLine() { clear(); }

void ProgressLine::set_done(std::uint64_t done) {
    done_ = done;
    if (live_) {
        refresh();
    }
}

void ProgressLine::show_start() {
    if (live_) {
        done_ = 0;
        draw(now());
        drawn_at_ -= kProgressRedrawMs;
    }
}

void ProgressLine::rebase() {
    if (live_) {
        base_at_ = now();
        base_done_ = done_;
    }
}

void ProgressLine::refresh() {
    if (!live_) {
        return;
    }
    const std::int64_t at = now();
    if (!drawn_ || at - drawn_at_ >= kProgressRedrawMs) {
        draw(at);
    }
}

void ProgressLine::clear() {
    if (gShown == this) {
        gShown = nullptr;
        gShownFd = -1;
        write_all(fd_, kErase);
    }
}

std::int64_t ProgressLine::now() const { return clock_ ? clock_() : steady_ms(); }

void ProgressLine::draw(std::int64_t at) {
    if (gShown != nullptr && gShown != this) {
        gShown->clear();  // one line at a time
    }
    ProgressState state{label_, done_, total_, std::nullopt};
    const std::int64_t elapsed = at - base_at_;
    if (elapsed >= kProgressRedrawMs && done_ >= base_done_) {
        state.rate = static_cast<double>(done_ - base_done_) * 1000.0 / static_cast<double>(elapsed);
    }
    // One column stays free, so that the line never wraps.
    const std::string text = progress_text(state);
    std::string line = "\r";
    line.append(cut(text, static_cast<std::size_t>(width_ - 1))).append("\x1b[K");
    write_all(fd_, line);
    drawn_ = true;
    drawn_at_ = at;
    gShown = this;
    gShownFd = fd_;
}

void clear_progress_line() {
    if (gShown != nullptr) {
        gShown->clear();
    }
}

void erase_progress_line_in_handler() {
    const int fd = gShownFd;
    if (fd >= 0) {
        [[maybe_unused]] const ssize_t n = ::write(fd, kErase.data(), kErase.size());
    }
}

}  // namespace rv
