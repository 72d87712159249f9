// The tool's trace: one context (`str_log`) set up at start from rv.ini and
// the debug settings file, and one call, WRITE_TRACE, that appends a stamped,
// indented line to the trace file (echoed to standard error when asked).
// Entry lines ("+...") indent what follows, exit lines ("-...") take it back.
// The file is opened and closed per line; a line that cannot be written is lost.
#pragma once

#include <string>
#include <string_view>

namespace rv {

// Message language of the protocol texts.
enum LANGUAGES { LANG_EN = 0, LANG_DE = 1, LANG_BA = 2, LANG_FR = 3, LANG_HR = 4 };
extern LANGUAGES eLang;

// Trace context. Passed by value to most functions, by pointer to WRITE_TRACE.
struct str_log {
    std::string szFile;  // full path of the trace file
    int iFlg = 0;        // trace level: 0 off, >0 entry/exit, >1 details, >2 per token
    int iVerify = 0;     // non-zero: echo every line to standard error
    std::string szIns;   // current indentation
};

// The tool's own trace context, set up by main through v_set_log_main.
extern str_log strLog;

// Indentation grows by two blanks per entry line up to this depth only.
inline constexpr int kTraceIndentSteps = 15;

// Sets up `strLog`: trace file <gv_rw_lgc><cpKeyFile>, level from the line
// "<cpKeyDebug>=N" of <gv_rw_ini>debug.ini, echo from "STDERR=N", and the
// message language from [SETUP] lang. Missing settings are reported (protocol
// log and standard error) and leave tracing off.
void v_set_log_main(std::string_view cpKeyFile, std::string_view cpKeyDebug, str_log* strLog);

// Returns the trace level the debug settings file gives for `cpInput`
// (upper-cased), or 0.
int log_check(std::string_view cpInput);

// Writes one trace line "hh:mm:ss#<indent> <formatted text>".
void WRITE_TRACE(str_log* strLog, const char* cpFormat, ...) __attribute__((format(printf, 2, 3)));

// Copies the file `cpFile` into the trace, one trace line per line of it
// (or a "File ... not found" line).
void WRITE_TRACE_COPY_FILE(str_log* strLog, std::string_view cpFile);

// The first context v_set_log_main set up, for code without a context.
const str_log& local_log();

// Current nesting depth of entry/exit lines.
int trace_depth();

// Forgets the process-wide trace state (depth, one-shot flags, local context),
// as in a fresh process. For tests.
void trace_reset();

}  // namespace rv
