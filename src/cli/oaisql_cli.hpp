// The command line of the loader oaisql:
// "oaisql -c FILE [-e] [-b STATEMENTS_PER_COMMIT] [-g ROWS_PER_INSERT]
// [-p POSFILE [-r]] [-q]".
#pragma once

namespace rv {

// Reads the options from `argv` (`argc` entries, the program name first)
// and runs the loader with stdout and stderr. A missing script, an unknown
// option, a count that is not a positive number, -p without a file or -r
// without -p prints the usage to stderr. Returns the exit status of the loader, kLoaderStopped on a
// usage error.
int oaisql_main(int argc, char** argv);

}  // namespace rv
