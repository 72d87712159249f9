// Table export and import steps: `dump` and `export` write one file
// "db_<table>.tmp" per table of a comma-separated list into the work
// directory, `import` feeds such files to the loader and counts its errors.
#pragma once

#include <string>
#include <string_view>

namespace rv {

// Writes the file of every table of `cpTable` ("dump": the table image,
// "export": the export tool's INSERT text). Returns 1 when every table was
// handled, 0 at the first table that failed.
int db_unload(std::string_view cpMode, std::string_view cpDatabase, std::string_view cpTable);

// Loads the file of every table of `cpTable`. The loader records how far it
// got beside each file (load_position_path); a `rerun` (the step was
// interrupted) continues each table after what its last load committed,
// so that no statement is committed twice. Returns the loader's status for
// the last table (0 when it succeeded).
int db_load(std::string_view cpDatabase, std::string_view cpTable, bool rerun = false);

// Where the loader records its position while it loads `image`.
std::string load_position_path(const std::string& image);

// Removes the load positions (of finished or discarded runs) in `work_dir`,
// with the new ones a killed loader left half written.
void remove_load_positions(const std::string& work_dir);

}  // namespace rv
