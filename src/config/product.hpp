// The run state of the tool that every layer reads: the product directories
// and the two releases (`pathes`), the update script's path (`rvdb_ini`) and
// the main version of a running update (`glbvVersion`). The environment check
// fills them once, before the command runs; afterwards they do not change.
#pragma once

#include <optional>
#include <string>

namespace rv {

// Product locations and releases. Directory fields carry their trailing
// separator, so a file name is simply appended.
struct x {
    std::string root_ravik;   // gv_ro
    std::string bin_ravik;    // gv_ro_bin
    std::string bin_db;       // gv_ro_db
    std::string var_ini;      // gv_rw_ini
    std::string var_work;     // gv_rw_work
    std::string var_db;       // gv_rw_db
    std::string var_db_old;   // no command fills it
    std::string version;      // the new (target) release
    std::string version_old;  // the installed (old) release
    char separator = '/';     // '/' on Unix, '\\' on Windows
};

extern x pathes;
// Full path of the update script.
extern std::string rvdb_ini;
// Main version of the running update ("1.6.4." for 1.6.4.71); empty otherwise.
extern std::optional<std::string> glbvVersion;

}  // namespace rv
