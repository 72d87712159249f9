// Runs one shell command line as a child process ("/bin/sh -c"), after
// preparing the product environment for it, and decodes how it ended. The
// child inherits the tool's standard output and error; redirections belong
// in the command line. One child at a time; the call waits for it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace rv {

// The error prefix "start_system: <command>" is cut to this length.
inline constexpr std::size_t kStartSystemPrefixMax = 1023;
// Returned when the environment for the child could not be prepared.
inline constexpr int kStartSystemNoEnvironment = 999;

// Runs `cpExe` and returns the child's exit code (0..255), or
// kStartSystemNoEnvironment. Every abnormal end (shell not found, command not
// found, killed by a signal) gives one standard-error line, one protocol-log
// line and replaces `cpExe` by the error text. When no child process can be
// created the tool ends with exit status 1.
int start_system(std::string& cpExe);

// A started shell child, for callers that wait for it themselves (the
// psql dump waits in a frame that a quit signal may jump out of).
struct ShellChild {
    pid_t pid = -1;
    std::string command;  // the command line as started
    std::string prefix;   // "start_system: <command>", cut to kStartSystemPrefixMax
};

// First half of start_system: prepares the environment for `cpExe` and starts
// "/bin/sh -c <cpExe>". Returns false (after printing the reason) when the
// environment could not be prepared; ends the tool when no child can be made.
bool spawn_shell(const std::string& cpExe, ShellChild& child);

// Reports a failed wait for `child` (standard error, protocol log, `cpExe`).
void report_wait_failure(const ShellChild& child, int err, std::string& cpExe);

// Second half of start_system: decodes the wait status of `child`, reports an
// abnormal end and returns the child's exit code.
int decode_child_status(const ShellChild& child, int status, std::string& cpExe);

}  // namespace rv
