// The environment check every command runs first: product directories from
// rv.ini into `pathes`, the path separator, the library path, the old and
// the new release (from version files or the operator), the update script's
// path and the environment report. An unusable environment ends the run.
#pragma once

#include <string>

namespace rv {

// The version the operator's empty answer stands for.
inline constexpr const char* kDefaultOldVersion = "1.6.4.71";
// The operator's answer keeps at most this many characters minus one.
inline constexpr int kVersionAnswerLimit = 10;

// Fills `pathes` and `rvdb_ini` and locks the installation for the rest of
// the run (update/run_lock.hpp). Empty `cpOldVersion` / `cpNewVersion` ask
// for detection; the detected releases are written back into them. Ends the
// run (FINISH throws Fatal) when the environment is unusable.
void checkenv(std::string& cpOldVersion, std::string& cpNewVersion);

// The two halves of checkenv: the installation (directories, lock, library
// path, the update script's path), then the releases and the report.
void check_installation();
void check_versions(std::string& cpOldVersion, std::string& cpNewVersion);

// Puts the product and database program directories in front of
// LD_LIBRARY_PATH (':'-separated on Unix, ';' on Windows).
void upd_setenv();

}  // namespace rv
