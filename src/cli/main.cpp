// rv_db_update: brings the product database and its files from one release
// to another. Everything lives in the library; this is only the entry point.
#include <csignal>

#include "cli/commands.hpp"
#include "sys/runner.hpp"

int main(int argc, char** argv) {
    // Told to stop, the run stops its child and ends with a status line.
    rv::catch_stop_signals({SIGTERM, SIGINT, SIGHUP});
    return rv::rv_db_update_main(argc, argv);
}
