// Runs the product's shell command lines through the child runner, with the
// product environment prepared, and reports how a child ended abnormally the
// way the product does: a standard-error line, a protocol line (E008), and
// the reason in the caller's text.
#pragma once

#include <cstddef>
#include <string>

#include "sys/runner.hpp"

namespace rv {

// The error prefix "start_system: <command>" is cut to this length.
inline constexpr std::size_t kStartSystemPrefixMax = 1023;
// Returned when the environment for the child could not be prepared.
inline constexpr int kStartSystemNoEnvironment = 999;
// Returned when the child could not be waited for.
inline constexpr int kStartSystemNoChild = 127;

// Runs `cpExe` and returns the child's exit code (0..255),
// kStartSystemNoEnvironment or kStartSystemNoChild. Every abnormal end
// (shell not found, command not found, killed by a signal, no child to wait
// for) gives one standard-error line, one protocol-log line and replaces
// `cpExe` by the error text. When no child can be made at all, the run ends
// with status 1 and no status line (throws Fatal).
int start_system(std::string& cpExe);

// Runs `command` as start_system does, for callers that need the runner's
// options (lines of output, a quit signal that breaks the wait off) or
// decide themselves what a child that could not be made means. `cpExe` is
// the text named in reports; an abnormal end replaces it by the error text.
// Returns how the child ended; throws StepFailure when the tool caught a stop
// signal (the child has then been stopped).
ChildEnd run_reported(const ChildCommand& command, std::string& cpExe);

// start_system's answer for `end`: the exit code, kStartSystemNoEnvironment
// or kStartSystemNoChild; throws Fatal (status 1, no status line, the text
// `cpExe`) when no child could be made.
int exit_code_of(const ChildEnd& end, const std::string& cpExe);

}  // namespace rv
