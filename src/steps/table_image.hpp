// Where the table steps keep their files. A table's image
// "<gv_rw_work>db_<table>.tmp" is written by dump and export, rewritten into
// an INSERT script by change and read by import; all of them name it through
// table_image_path, so they agree on the file. A directory is the global
// variable of its name, or else the rv.ini [PATHES] key of that name.
#pragma once

#include <string>
#include <string_view>

namespace rv {

// The directory `name` (with its trailing separator): the global variable,
// else the [PATHES] key; "" when neither is known.
std::string product_dir(const std::string& name);

// Why no image path could be named: no work directory is known.
inline constexpr const char* kWorkDirUnknown =
    "directory gv_rw_work unknown (neither global variable nor rv.ini key)";

// Full path of the table image of `table`, or "" when the work directory is
// unknown. Where the global variable gv_rw_work and the rv.ini key disagree,
// the variable is used and standard output says so, once for each pair of
// values (so once a run).
std::string table_image_path(std::string_view table);

}  // namespace rv
