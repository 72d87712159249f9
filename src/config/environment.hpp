// The environment the product's programs need: PATH, PGPORT, OPENRDA_INI and
// LD_LIBRARY_PATH set from the configuration for the program a command line
// starts, and a description of the process that started the tool.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

namespace rv {

// PATH may not grow to this length or beyond; the attempt is refused.
inline constexpr std::size_t kPathLimit = 2048;
// Default directory of the database client programs.
inline constexpr const char* kDefaultPgsqlDir = "/usr/local/pgsql/bin/";

// Prepares the environment for the program the shell command line
// `cpSystemCall` starts: OPENRDA_INI, PGPORT, and PATH extended by the
// product's program directories (plus the database directories for the
// database programs rv_db, damisql and psql, the media-server directory for
// the media-server interface, a library directory for NetWare support).
// Returns false when the environment could not be prepared; the reason has
// then been printed on standard output.
bool i_setenv_ravik(std::string_view cpSystemCall);

// Sends the messages of i_setenv_ravik to `stream` instead of standard
// output (for programs whose standard output is data).
void set_environment_report(std::FILE* stream);

// Describes the parent process as "<command line> (PPID=<pid>)" from the
// process list. Returns false (and reports) when the list cannot be read.
bool get_parent_info(std::string& cpInfo);

}  // namespace rv
