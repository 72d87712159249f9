// rv_db: the product's export tool. Everything lives in the library.
#include "cli/rv_db_cli.hpp"

int main(int argc, char** argv) {
    return rv::rv_db_main(argc, argv);
}
