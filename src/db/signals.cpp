#include "db/signals.hpp"

#include <unistd.h>

namespace rv {

sigjmp_buf gSigenv;
int giSaveSignal = 0;
struct sigaction new_action;
struct sigaction old_SIGINT_action;
struct sigaction old_SIGTERM_action;

void signal_db_handler(int /*signo*/) {
    // write(2) rather than stdio: the signal may have come in the middle of
    // any stdio call. Nothing can be done about a short write here.
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, kSigquitText, sizeof kSigquitText - 1);
    siglongjmp(gSigenv, kSignalJumpValue);
}

}  // namespace rv
