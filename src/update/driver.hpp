// The update script driver: runs one section of rv_db_update.ini step by
// step, hands each step to the handler of its keyword and runs nested
// sections.
#pragma once

#include <string_view>

namespace rv {

// Runs the section `cpVersion` (e.g. "Update 1.6.4.") of the update script.
// Returns 1; fatal conditions end the process through FINISH.
int iDbUpdate(std::string_view cpVersion);

}  // namespace rv
