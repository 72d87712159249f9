// The tool's trace: one context (`strLog`, set up at start from the product
// configuration and the debug settings file) and one call, WRITE_TRACE, that
// appends a stamped, indented line to the trace file (echoed to standard
// error when asked) when the trace level asks for it. Entry lines ("+...")
// indent what follows, exit lines ("-...") take it back. The file is opened
// and closed per line; a line that cannot be written is lost.
#pragma once

#include <string>

namespace rv {

// Trace context of the process.
struct str_log {
    std::string szFile;  // full path of the trace file
    int iFlg = 0;        // trace level: 0 off, >0 entry/exit, >1 details, >2 per token
    int iVerify = 0;     // non-zero: echo every line to standard error
    std::string szIns;   // current indentation
};

// The one trace context; the program entry sets it up (v_set_log_main, -v).
extern str_log strLog;

// Indentation grows by two blanks per entry line up to this depth only.
inline constexpr int kTraceIndentSteps = 15;

// True when the trace level is `iLevel` or higher: for callers that would
// otherwise build costly arguments for nothing.
bool tracing(int iLevel);

// Writes one trace line "hh:mm:ss#<indent> <formatted text>" when the trace
// level is at least `iLevel` (1: entry and exit, 2: details, 3: per token;
// 0: whenever a trace file is named).
void WRITE_TRACE(int iLevel, const char* cpFormat, ...) __attribute__((format(printf, 2, 3)));

// True the first time it is asked (after start or trace_reset): the trace
// says once a process that it is enabled.
bool first_announcement();

// Forgets the trace state (context, depth, announcement), as in a fresh
// process. For tests.
void trace_reset();

}  // namespace rv
