// One operator at a time: every command that checks the environment locks
// the installation first, through the lock file in its work directory
// (rv.ini, [PATHES] gv_rw_work). A second run of the same installation ends
// at once with status 2, naming the process that holds the lock and when it
// started. The kernel holds the lock (see sys/file_lock.hpp): it ends with
// the run and with the guardians of the run's children, also after a
// SIGKILL. Once locked, the run removes what killed runs left in the work
// directory.
#pragma once

#include <string>

namespace rv {

// Name of the lock file in the work directory.
inline constexpr const char* kLockFileName = "rv_db_update.lock";

// Locks the installation whose work directory is `work_dir` for the rest of
// the run (until unlock_installation()) and removes the temporary files of
// atomic replacements that killed runs left there, each named on standard
// output. Ends the run (FINISH) when another process holds the lock or the
// lock file cannot be used. An empty `work_dir` (none configured) is
// reported on standard error and the run goes on unlocked.
void lock_installation(const std::string& work_dir);

// Gives the lock of the installation up; nothing when none is held.
void unlock_installation();

}  // namespace rv
