// Table export and import steps: `dump` and `export` write one file
// "db_<table>.tmp" per table of a comma-separated list into the work
// directory, `import` feeds such files to the loader and counts its errors.
#pragma once

#include <string_view>

namespace rv {

// Writes the file of every table of `cpTable` ("dump": the table image,
// "export": the export tool's INSERT text). Returns 1 when every table was
// handled, 0 at the first table that failed.
int db_unload(std::string_view cpMode, std::string_view cpDatabase, std::string_view cpTable);

// Loads the file of every table of `cpTable`. Returns the loader's status
// for the last table (0 when it succeeded).
int db_load(std::string_view cpDatabase, std::string_view cpTable);

}  // namespace rv
