// Failures of steps that let the run go on (a failing statement, a dump of a
// table that does not exist, an import with failing statements, an export
// whose tool failed): the handlers say what failed, the script driver takes
// them after each step for the failure summary at the run's end.
#pragma once

#include <string>
#include <vector>

namespace rv {

// Notes that the step running now failed: `what` names the keyword, the
// table or statement and the reason on one line ("import media: 3 of 1,000
// statements failed").
void step_failed(std::string what);

// The failures noted since the last call, in order; the list is emptied.
std::vector<std::string> take_step_failures();

}  // namespace rv
