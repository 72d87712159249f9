// Child processes. Every child of the tool starts through the one runner in
// use (child_runner()): it runs a shell command line ("/bin/sh -c"), owns
// the child while it runs, waits for it safely after interruptions, and
// stops it on demand. A child never outlives the tool: each runs in a
// process group of its own under a small guardian process, which kills the
// whole group when the tool dies, even of SIGKILL (the kernel's parent-death
// signal tells it). Tests install a fake runner instead.
#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>
#include <string_view>

namespace rv {

// A stopped child's process group gets SIGINT (a client cancels its
// statement), SIGTERM after half a second and SIGKILL after this long.
inline constexpr int kChildGraceMs = 2000;

// How often ChildCommand::on_tick is called while a child runs.
inline constexpr int kChildTickMs = 250;

// What to run and how.
struct ChildCommand {
    std::string shell_line;  // run by "/bin/sh -c"
    // When set, the child's standard output comes through a pipe and is
    // handed over line by line, line feed included; otherwise the child
    // shares the tool's standard output.
    std::function<void(const std::string& line)> on_line;
    // When set, a SIGQUIT while the tool waits writes this text to standard
    // error, stops the child and ends the wait as `interrupted`.
    const char* quit_notice = nullptr;
    // Whether the environment preparation runs first (not for probes of the
    // tool's own, which must work before the configuration is known).
    bool prepare_environment = true;
    // Variables set for this child (and what it starts) only.
    std::vector<std::pair<std::string, std::string>> environment = {};
    // When set, called about every kChildTickMs while the tool waits for the
    // child (and reads its lines), with a quit signal held back meanwhile.
    // It must not throw: an exception ends the tool.
    std::function<void()> on_tick = {};
};

// How a child ended.
struct ChildEnd {
    enum class How {
        finished,     // `status` is the wait status
        refused,      // the environment for the child could not be prepared
        not_started,  // no child could be made; `error` is the errno
        lost,         // the child could not be waited for; `error` is the errno
        interrupted,  // a SIGQUIT broke the wait off; the child was stopped
    };
    How how = How::not_started;
    int status = 0;
    int error = 0;

    bool finished() const { return how == How::finished; }
    // Exit code of a finished child (0..255), as the shell reports it.
    int exit_code() const { return (status >> 8) & 0xff; }
};

// Runs children.
class ChildRunner {
  public:
    virtual ~ChildRunner() = default;
    // Runs `command` to its end and says how it ended. A quit signal, a
    // caught stop signal or an exception from `on_line` stops the child (its
    // whole process group) first.
    virtual ChildEnd run(const ChildCommand& command) = 0;
};

// The runner in use: the real one unless a test installed another.
ChildRunner& child_runner();

// Installs `runner` as the one in use; nullptr brings the real one back.
void set_child_runner(ChildRunner* runner);

// Prepares the tool's environment for the child `shell_line` starts;
// false refuses the start.
using ChildEnvironment = bool (*)(std::string_view shell_line);

// Installs the environment preparation the real runner calls before every
// start (nullptr: none).
void set_child_environment(ChildEnvironment prepare);

// Catches `signals` (SIGTERM, SIGINT, SIGHUP, say) for the rest of the run,
// but for those that are ignored (a run started with nohup): one of them
// stops the running child, and any child started later, and is remembered
// for stop_signal(). System calls interrupted by them restart.
void catch_stop_signals(std::initializer_list<int> signals);

// The stop signal caught, or 0.
int stop_signal();

// While it lives, the stop signals catch_stop_signals caught take their
// default action and end the tool at once (for a wait a caught one could not
// break off, such as the operator's answer at a prompt).
class StopSignalsAtDefault {
  public:
    StopSignalsAtDefault();
    ~StopSignalsAtDefault();
    StopSignalsAtDefault(const StopSignalsAtDefault&) = delete;
    StopSignalsAtDefault& operator=(const StopSignalsAtDefault&) = delete;
};

// "SIGTERM" for SIGTERM, and so on.
std::string signal_name(int signo);

// `word` as one shell word: unchanged when it holds only letters, digits
// and "_-+./:=,@%", else in single quotes (a quote inside as '\'').
std::string shell_quote(std::string_view word);

// True when `text` can stand between double quotes in a shell line
// unchanged: it holds none of '"', '$', '`', '\\'.
bool shell_double_quotable(std::string_view text);

}  // namespace rv
