// A pseudo-terminal for tests of what a program shows on a terminal, and a
// run of a built program with its standard error on one.
#pragma once

#include <string>
#include <vector>

#include "support/run.hpp"

namespace rvtest {

// A pseudo-terminal in raw mode (no line feed becomes "\r\n"), `columns`
// wide: programs write to terminal(), the test reads what came.
class Pty {
  public:
    explicit Pty(int columns = 120);
    ~Pty();
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    int terminal() const { return terminal_; }
    // Takes in what came, waiting at most `ms` for it (a reader thread
    // calls it while a program runs, so that a full terminal never holds
    // the program up).
    void collect(int ms);
    // Everything written to the terminal since the last call: the test
    // writes a mark behind it and reads up to the mark.
    std::string written();

  private:
    int reader_ = -1;
    int terminal_ = -1;
    std::string came_;
};

// Runs `argv` as run() does, but with standard error on a pseudo-terminal;
// `err` is what came there.
RunResult run_on_terminal(const std::vector<std::string>& argv, const Env& env = {});

}  // namespace rvtest
