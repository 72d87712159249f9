// The one way a fatal condition ends a run: FINISH throws `Fatal`, which the
// program's entry catches once (finish_run): it prints the closing status
// line "STATUS=<word> MSG=<message>" on standard output and its status
// becomes the exit status. Destructors run on the way out: temporary files
// go, a running child is stopped. Successful runs end without a status line.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace rv {

enum EXIT_STATE { RV_SUCCESS = 0, RV_WARNING = 1, RV_ERROR = 2, RV_FATAL = 3 };

// "SUCCESS", "WARNING", "ERROR", and "FATAL" for any other value.
const char* status_word(int iExit);

// A fatal condition: the exit status and the message of the status line
// (printed unless `bStatusLine` is false: the message went elsewhere).
class Fatal : public std::runtime_error {
  public:
    Fatal(int iExit, std::string_view cpMsg, bool bStatusLine = true);
    int status() const { return status_; }
    bool status_line() const { return status_line_; }

  private:
    int status_;
    bool status_line_;
};

// A step that holds the only copy of rows failed, or the run was told to
// stop: the run ends (RV_ERROR) before any later step. The script driver
// names the step in the status line; `what()` is the reason.
class StepFailure : public Fatal {
  public:
    explicit StepFailure(std::string_view cpReason) : Fatal(RV_ERROR, cpReason) {}
};

// Traces entry and exit (not for RV_FATAL) and throws Fatal(iExit, cpMsg).
// Must not be called where a quit-signal jump target is active.
[[noreturn]] void FINISH(int iExit, std::string_view cpMsg);

// Tells that standard output was left in the middle of a line (a notice
// printed without its line feed), so that a status line printed next starts
// on a line of its own.
void console_mid_line();

// For the program entry: prints the status line of `fatal` (when it has
// one) and returns its exit status.
int finish_run(const Fatal& fatal);

}  // namespace rv
