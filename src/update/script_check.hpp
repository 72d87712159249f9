// The check of an update script without running it: every section that
// `update` or `downgrade` may run ([Update ...], [Downgrade ...]) and every
// section they call is read as the driver would read it, and what would make
// the update do other than its writer meant, or end it, is reported with the
// line it stands on. Conditions are not decided: every step is looked at.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace rv {

// One finding: an error (the update would not do what the line says, or
// would end there) or a warning (it would, but likely not as meant).
struct ScriptFinding {
    int line = 0;
    bool error = false;
    std::string text;
};

// The findings for the update script `text`, ordered by line.
std::vector<ScriptFinding> check_script(std::string_view text);

// Checks the script file `path` and prints one line a finding on standard
// output, "FILE:LINE: error: TEXT" or "FILE:LINE: warning: TEXT". Returns 0
// when there is none, 1 for warnings only, 2 when there is an error. A file
// that cannot be read ends the run (FINISH).
int check_script_file(const std::string& path);

}  // namespace rv
