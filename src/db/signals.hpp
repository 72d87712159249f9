// Process-wide state of the jump back from an interrupted database call: the
// jump target, the save-mask flag handed to sigsetjmp, and the signal actions
// that the database access sets aside and restores around a statement.
// Single-threaded; one database call at a time, calls must not nest.
#pragma once

#include <csetjmp>
#include <csignal>

namespace rv {

// Jump target of the SIGQUIT handlers, saved by the caller of a database call.
extern sigjmp_buf gSigenv;
// Save-mask flag passed to sigsetjmp; nothing sets it, so it stays 0.
extern int giSaveSignal;
// Scratch action used to install a handler or the default action.
extern struct sigaction new_action;
// The SIGINT, SIGTERM and SIGHUP actions in force before a database statement.
extern struct sigaction old_SIGINT_action;
extern struct sigaction old_SIGTERM_action;
extern struct sigaction old_SIGHUP_action;

// The value sigsetjmp returns when a handler has jumped back.
inline constexpr int kSignalJumpValue = -1;

// The text a SIGQUIT that breaks a statement off writes to standard error
// (the database access's handler, and the dump's wait for its client).
inline constexpr char kSigquitText[] =
    "signal_psql_handler: SIGQUIT received ----------------DB-ERROR---------------\n";

}  // namespace rv
