// The one way a fatal condition ends the process: FINISH prints the closing
// status line "STATUS=<word> MSG=<message>" on standard output and exits with
// the given status. Successful runs end without a status line.
#pragma once

#include <string_view>

namespace rv {

enum EXIT_STATE { RV_SUCCESS = 0, RV_WARNING = 1, RV_ERROR = 2, RV_FATAL = 3 };

// "SUCCESS", "WARNING", "ERROR", and "FATAL" for any other value.
const char* status_word(int iExit);

// Traces entry and exit (not for RV_FATAL), prints the status line and ends
// the process with `iExit` as exit status.
[[noreturn]] void FINISH(int iExit, std::string_view cpMsg);

}  // namespace rv
