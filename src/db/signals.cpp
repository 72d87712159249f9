#include "db/signals.hpp"

namespace rv {

sigjmp_buf gSigenv;
int giSaveSignal = 0;
struct sigaction new_action;
struct sigaction old_SIGINT_action;
struct sigaction old_SIGTERM_action;
struct sigaction old_SIGHUP_action;

}  // namespace rv
