// oaisql: the product's SQL loader; runs a script of statements against the
// database. Everything lives in the library; this is only the entry point.
#include "cli/oaisql_cli.hpp"

int main(int argc, char** argv) {
    return rv::oaisql_main(argc, argv);
}
