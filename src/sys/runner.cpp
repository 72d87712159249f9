#include "sys/runner.hpp"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "sys/progress.hpp"

extern char** environ;

// How a child is owned. The tool forks a guardian, which makes a process
// group of its own, hands it the terminal when the tool had it, and forks the
// shell into that group. The guardian ignores the stop signals, waits for the
// shell and ends the same way it did, so the tool sees the shell's status.
// When the tool dies, the kernel sends the guardian kGuardSignal (its
// parent-death signal), on which it kills its whole group. Stopping a child
// is SIGTERM to the group, then SIGKILL after the grace time.

namespace rv {

namespace {

// Exit code of a shell child that could not be started: this plus errno.
constexpr int kExecFailureBase = 160;
// The guardian's parent-death signal.
constexpr int kGuardSignal = SIGUSR1;
// Signals the guardian outlives, so that it can report how the shell ended.
constexpr int kStopSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
constexpr int kPollMs = 10;
// A stopped child is first asked to end (SIGINT: a client cancels its
// statement), then told (SIGTERM after this long), then killed (SIGKILL after
// kChildGraceMs).
constexpr int kCancelMs = 500;

// Set once the running child is to be stopped; the running child's process
// group (its guardian's pid), or -1; a stop signal the tool caught, or 0.
// Read and written by signal handlers.
volatile sig_atomic_t gStopRequested = 0;
volatile sig_atomic_t gRunning = -1;
volatile sig_atomic_t gStopSignal = 0;

// The stop signals catch_stop_signals caught.
std::vector<int> gCaught;

ChildRunner* gInstalled = nullptr;
ChildEnvironment gEnvironment = nullptr;

// Jump target of a quit signal while a quittable wait runs, and the quit
// action the wait replaced (given back afterwards).
sigjmp_buf gQuitJump;
struct sigaction gQuitBefore;
const char* volatile gQuitNotice = nullptr;

void on_quit(int /*signo*/) {
    const char* notice = gQuitNotice;
    if (notice != nullptr) {
        erase_progress_line_in_handler();
        [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, notice, std::strlen(notice));
    }
    siglongjmp(gQuitJump, 1);
}

void kill_own_group(int /*signo*/) { kill(0, SIGKILL); }

void on_stop_signal(int signo) {
    gStopSignal = signo;
    gStopRequested = 1;
    const pid_t group = gRunning;
    if (group > 0) {
        kill(-group, SIGINT);
    }
}

long elapsed_ms(const timespec& since) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - since.tv_sec) * 1000L + (now.tv_nsec - since.tv_nsec) / 1000000L;
}

void sleep_ms(int ms) {
    timespec ts{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// Calls a command's on_tick every kChildTickMs while the tool waits. It has
// no destructor: it lives in the frame a quit signal jumps back to.
class Ticker {
  public:
    explicit Ticker(const std::function<void()>& tick) : tick_(tick) { clock_gettime(CLOCK_MONOTONIC, &last_); }

    bool active() const { return static_cast<bool>(tick_); }

    // Milliseconds until the next call is due, 0 when it is.
    int due_in() const { return static_cast<int>(std::max(0L, kChildTickMs - elapsed_ms(last_))); }

    // Calls on_tick when it is due. A quit signal waits meanwhile: its jump
    // must not leave the call half done.
    void maybe() noexcept {
        if (!tick_ || due_in() > 0) {
            return;
        }
        sigset_t quit;
        sigset_t old;
        sigemptyset(&quit);
        sigaddset(&quit, SIGQUIT);
        sigprocmask(SIG_BLOCK, &quit, &old);
        tick_();
        clock_gettime(CLOCK_MONOTONIC, &last_);
        sigprocmask(SIG_SETMASK, &old, nullptr);
    }

  private:
    const std::function<void()>& tick_;
    timespec last_{};
};

// Child side, in the guardian's group: becomes the shell.
[[noreturn]] void exec_shell(const char* line, int out_fd, const struct sigaction* saved,
                             const sigset_t* mask) {
    for (std::size_t i = 0; i < std::size(kStopSignals); ++i) {
        sigaction(kStopSignals[i], &saved[i], nullptr);
    }
    std::signal(kGuardSignal, SIG_DFL);
    sigprocmask(SIG_SETMASK, mask, nullptr);
    if (out_fd >= 0) {
        dup2(out_fd, STDOUT_FILENO);
        close(out_fd);
    }
    char sh[] = "sh";
    char dash_c[] = "-c";
    char* const argv[] = {sh, dash_c, const_cast<char*>(line), nullptr};
    execve("/bin/sh", argv, environ);
    const int err = errno;
    std::fprintf(stderr, "start_system (child): /bin/sh %s %s\n", "-c", line);
    std::fprintf(stderr, "start_system (child): %s (%d)\n", std::strerror(err), err);
    std::fflush(stderr);
    _exit(kExecFailureBase + err);
}

// Ends the guardian the way the shell ended.
[[noreturn]] void end_like(int status) {
    if (WIFSIGNALED(status)) {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        std::signal(WTERMSIG(status), SIG_DFL);
        sigset_t all;
        sigemptyset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
        kill(getpid(), WTERMSIG(status));
    }
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

// The guardian. Only plain system calls: it is a copy of the tool.
[[noreturn]] void guard(const char* line, int out_fd, int in_fd, pid_t tool, bool terminal) {
    setpgid(0, 0);
    struct sigaction saved[std::size(kStopSignals)];
    for (std::size_t i = 0; i < std::size(kStopSignals); ++i) {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(kStopSignals[i], &ignore, &saved[i]);
    }
    struct sigaction on_death {};
    on_death.sa_handler = kill_own_group;
    sigaction(kGuardSignal, &on_death, nullptr);
    sigset_t guard_signal;
    sigemptyset(&guard_signal);
    sigaddset(&guard_signal, kGuardSignal);
    sigprocmask(SIG_UNBLOCK, &guard_signal, nullptr);
    prctl(PR_SET_PDEATHSIG, kGuardSignal);
    if (getppid() != tool) {
        kill_own_group(0);
    }
    if (terminal) {
        std::signal(SIGTTOU, SIG_IGN);
        tcsetpgrp(STDIN_FILENO, getpid());
        std::signal(SIGTTOU, SIG_DFL);
    }
    if (in_fd >= 0) {
        close(in_fd);
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    const pid_t shell = fork();
    if (shell < 0) {
        _exit(kExecFailureBase + errno);
    }
    if (shell == 0) {
        exec_shell(line, out_fd, saved, &mask);
    }
    if (out_fd >= 0) {
        close(out_fd);
    }
    int status = 0;
    while (waitpid(shell, &status, 0) < 0) {
        if (errno != EINTR) {
            _exit(kExecFailureBase + ECHILD);
        }
    }
    end_like(status);
}

// Sends the stop signal that is due `ms` after the stop began; `sent` counts
// those sent so far.
void escalate(pid_t pid, long ms, int& sent) {
    constexpr int kSteps[] = {SIGINT, SIGTERM, SIGKILL};
    const long due[] = {0, kCancelMs, kChildGraceMs};
    while (sent < 3 && ms >= due[sent]) {
        kill(-pid, kSteps[sent++]);
    }
}

// Waits for `pid`, stopping it once a stop is requested. The wait polls, so
// that a stop request is seen even where a handler's interruption is not.
// Returns the wait status, or -1 - errno when there is no child to wait for.
// `ticker`, when given, is called on the way.
int wait_owned(pid_t pid, Ticker* ticker = nullptr) {
    int sent = 0;
    int pause = 1;
    timespec stop{};
    while (true) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            return status;
        }
        if (r < 0 && errno != EINTR) {
            return -1 - errno;
        }
        if (gStopRequested) {
            if (sent == 0) {
                clock_gettime(CLOCK_MONOTONIC, &stop);
            }
            escalate(pid, elapsed_ms(stop), sent);
        }
        if (ticker != nullptr) {
            ticker->maybe();
        }
        sleep_ms(pause);
        pause = std::min(pause * 2, kPollMs);
    }
}

// The wait of a quittable child: a quit signal jumps back here from inside
// waitpid. Nothing in this frame has a destructor, so the jump skips none.
int wait_quittable(pid_t pid, const char* notice, bool& interrupted, Ticker& ticker) {
    if (sigsetjmp(gQuitJump, 1) != 0) {
        sigaction(SIGQUIT, &gQuitBefore, nullptr);
        gQuitNotice = nullptr;
        interrupted = true;
        gStopRequested = 1;
        return wait_owned(pid, &ticker);
    }
    gQuitNotice = notice;
    struct sigaction action {};
    action.sa_handler = on_quit;
    sigemptyset(&action.sa_mask);
    sigaction(SIGQUIT, &action, &gQuitBefore);
    const int status = wait_owned(pid, &ticker);
    sigaction(SIGQUIT, &gQuitBefore, nullptr);
    gQuitNotice = nullptr;
    return status;
}

// Hands the lines of `fd` to `on_line`, calling `ticker` on the way.
void pass_lines(int fd, const std::function<void(const std::string&)>& on_line, Ticker& ticker) {
    std::string pending;
    char buffer[8192];
    while (true) {
        ticker.maybe();
        if (ticker.active()) {
            pollfd ready{fd, POLLIN, 0};
            const int r = poll(&ready, 1, ticker.due_in());
            if (r == 0 || (r < 0 && errno == EINTR)) {
                continue;
            }
        }
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        pending.append(buffer, static_cast<std::size_t>(n));
        std::size_t start = 0;
        for (std::size_t nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n', start)) {
            on_line(pending.substr(start, nl + 1 - start));
            start = nl + 1;
        }
        pending.erase(0, start);
    }
    if (!pending.empty()) {
        on_line(pending);
    }
}

// Owns the running child: whatever way the run is left, the child is
// stopped and reaped, the pipe closed and the terminal taken back.
class Owned {
  public:
    Owned(pid_t pid, int fd, bool terminal) : pid_(pid), fd_(fd), terminal_(terminal) {
        gRunning = pid;
        if (gStopSignal != 0) {
            gStopRequested = 1;  // told to stop before it started
        }
    }
    ~Owned() {
        if (fd_ >= 0) {
            close(fd_);
        }
        if (!reaped_) {
            gStopRequested = 1;
            wait_owned(pid_);
        }
        gRunning = -1;
        gStopRequested = 0;
        if (terminal_) {
            sigset_t ttou;
            sigset_t old;
            sigemptyset(&ttou);
            sigaddset(&ttou, SIGTTOU);
            sigprocmask(SIG_BLOCK, &ttou, &old);
            tcsetpgrp(STDIN_FILENO, getpgrp());
            sigprocmask(SIG_SETMASK, &old, nullptr);
        }
    }
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

    int fd() const { return fd_; }
    void reaped() { reaped_ = true; }

  private:
    pid_t pid_;
    int fd_;
    bool terminal_;
    bool reaped_ = false;
};

// A signal typed at the terminal reached only the child's group, which had
// the terminal; it was meant for the tool as well. A quit breaks a quittable
// wait off; otherwise the tool takes the signal as if it had been typed.
void take_keyboard_signal(ChildEnd& end, const char* quit_notice) {
    const int sig = WTERMSIG(end.status);
    if (sig == SIGQUIT && quit_notice != nullptr) {
        clear_progress_line();
        [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, quit_notice, std::strlen(quit_notice));
        end.how = ChildEnd::How::interrupted;
    } else if (sig == SIGINT || sig == SIGQUIT) {
        std::fflush(nullptr);
        raise(sig);
    }
}

class RealRunner : public ChildRunner {
  public:
    ChildEnd run(const ChildCommand& command) override {
        bool terminal = false;
        ChildEnd end = start_and_wait(command, terminal);
        if (terminal && end.finished() && WIFSIGNALED(end.status)) {
            take_keyboard_signal(end, command.quit_notice);
        }
        return end;
    }

  private:
    // Starts the child and waits for it; `terminal` tells whether its group
    // had the terminal.
    static ChildEnd start_and_wait(const ChildCommand& command, bool& terminal) {
        ChildEnd end;
        if (command.prepare_environment && gEnvironment != nullptr && !gEnvironment(command.shell_line)) {
            end.how = ChildEnd::How::refused;
            return end;
        }
        int fds[2] = {-1, -1};
        if (command.on_line && pipe2(fds, O_CLOEXEC) != 0) {
            end.error = errno;
            return end;
        }
        terminal = isatty(STDIN_FILENO) && tcgetpgrp(STDIN_FILENO) == getpgrp();
        const pid_t tool = getpid();
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid < 0) {
            end.error = errno;
            for (const int fd : fds) {
                if (fd >= 0) {
                    close(fd);
                }
            }
            return end;
        }
        if (pid == 0) {
            for (const auto& [name, value] : command.environment) {
                setenv(name.c_str(), value.c_str(), 1);  // a copy of the tool, single-threaded
            }
            guard(command.shell_line.c_str(), fds[1], fds[0], tool, terminal);
        }
        setpgid(pid, pid);
        if (fds[1] >= 0) {
            close(fds[1]);
        }
        Owned owned(pid, fds[0], terminal);
        Ticker ticker(command.on_tick);
        if (command.on_line) {
            pass_lines(owned.fd(), command.on_line, ticker);
        }
        bool interrupted = false;
        const int status = command.quit_notice != nullptr
                               ? wait_quittable(pid, command.quit_notice, interrupted, ticker)
                               : wait_owned(pid, &ticker);
        owned.reaped();
        if (status < 0) {
            end.error = -1 - status;
            end.how = ChildEnd::How::lost;
            return end;
        }
        end.status = status;
        end.how = interrupted ? ChildEnd::How::interrupted : ChildEnd::How::finished;
        return end;
    }
};

}  // namespace

ChildRunner& child_runner() {
    static RealRunner real;
    return gInstalled != nullptr ? *gInstalled : real;
}

void set_child_runner(ChildRunner* runner) { gInstalled = runner; }

void set_child_environment(ChildEnvironment prepare) { gEnvironment = prepare; }

namespace {

// The action of a caught stop signal.
struct sigaction stop_action() {
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return action;
}

}  // namespace

void catch_stop_signals(std::initializer_list<int> signals) {
    const struct sigaction action = stop_action();
    for (const int signo : signals) {
        // An ignored signal stays ignored (a run started with nohup, say).
        struct sigaction before {};
        if (sigaction(signo, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
            sigaction(signo, &action, nullptr);
            gCaught.push_back(signo);
        }
    }
}

StopSignalsAtDefault::StopSignalsAtDefault() {
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    for (const int signo : gCaught) {
        sigaction(signo, &fallback, nullptr);
    }
}

StopSignalsAtDefault::~StopSignalsAtDefault() {
    const struct sigaction action = stop_action();
    for (const int signo : gCaught) {
        sigaction(signo, &action, nullptr);
    }
}

int stop_signal() { return gStopSignal; }

}  // namespace rv
