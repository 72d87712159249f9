// The SQL loader behind `oaisql -c FILE [-e]`: runs the statements of a
// script against the database in file order. Every failing statement gets
// one output line containing "Error" (and no other line does), every
// statement that succeeds on its own is committed exactly once, and a
// summary line closes the output. Exit status: 0, 1 (failures) or 2.
// Runs of INSERT lines of one shape go through COPY where the table lets
// COPY do what the statements would (copy_path.hpp); -s keeps them on the
// statement path.
// With a position file (-p) it records how far it got, and continues an
// interrupted run from there (-r): see position.hpp. While it runs, a
// progress line on standard error shows the statements done of those of
// the script, when standard error is a terminal and -q does not turn it off.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace rv {

// Database used until the script names one with "connect <db>".
inline constexpr const char* kLoaderDefaultDatabase = "ravik_db";
// Statements committed together; a failing statement costs a replay of
// at most this many of its neighbours.
inline constexpr std::size_t kLoaderBatch = 500;
// Consecutive rows of one INSERT shape sent as one multi-row INSERT.
inline constexpr std::size_t kLoaderGroup = 50;
// The largest count -b and -g accept.
inline constexpr std::size_t kLoaderCountMax = 1000000;

inline constexpr int kLoaderAllDone = 0;     // every statement succeeded
inline constexpr int kLoaderSomeFailed = 1;  // at least one statement failed
inline constexpr int kLoaderStopped = 2;     // usage, unreadable script or no connection

struct LoaderOptions {
    std::string file;                  // the script (-c)
    bool echo_statement = false;       // -e: add the failing statement to its Error line
    std::size_t batch = kLoaderBatch;  // statements per commit, at least 1
    std::size_t group = kLoaderGroup;  // rows per multi-row INSERT, 1: none
    std::string position;              // -p: the position file, empty: none
    bool resume = false;               // -r: continue the run recorded there
    bool quiet = false;                // -q: no progress line
    bool statements_only = false;      // -s: INSERT statements, never COPY
};

// Runs the script of `options`; Error lines and the summary go to `out`,
// the reason of a stop and notes on the position to `err`, and so does the
// progress line, when `err` is a terminal. Returns one of
// the exit statuses above: a position file that cannot be read or parsed,
// or whose transactions the server cannot tell, stops the run (2) before
// anything is loaded; one that says the script ran to its end loads nothing
// (0).
int run_loader(const LoaderOptions& options, std::FILE* out, std::FILE* err);

}  // namespace rv
