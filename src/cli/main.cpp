// rv_db_update: brings the product database and its files from one release
// to another. Everything lives in the library; this is only the entry point.
#include "cli/commands.hpp"

int main(int argc, char** argv) { return rv::rv_db_update_main(argc, argv); }
