// rv_db: the product's export tool. Everything lives in the library.
#include "db/rv_db_tool.hpp"

int main(int argc, char** argv) {
    return rv::rv_db_main(argc, argv);
}
