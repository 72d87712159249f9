// The command line of rv_db_update: the -v option, the selection of one of
// the commands update, downgrade, db_backup, db_restore, set_params_fix,
// resume, plan and check by its (possibly shortened) word, the usage texts,
// and the commands themselves.
#pragma once

#include <string>
#include <string_view>

namespace rv {

// The command list; a first argument selects the command at whose position
// it first occurs in this text.
inline constexpr std::string_view kCommandList = "update|downgrade|db_backup|db_restore|set_params_fix|resume|plan|check";
inline constexpr std::string_view kUsageList =
    "update [{old_version} {new_version}]|downgrade|db_backup|db_restore|set_params_fix|resume|plan|check";

// Runs the tool; returns the exit status of a command that ran to its end.
// Fatal conditions and usage warnings are caught here: their status line is
// printed and their status returned.
int rv_db_update_main(int argc, char** argv);

}  // namespace rv
