#include "steps/unload.hpp"

#include <cstdio>

namespace rv {

// Not built yet: dumps, exports and imports arrive with the psql client and
// the loader. The step fails and says so; the update goes on, as after any
// failed step, but nothing pretends a table was saved or loaded.
int db_unload(std::string_view cpMode, std::string_view /*cpDatabase*/, std::string_view cpTable) {
    std::printf("db_unload: %.*s is not available in this build, nothing written for %.*s\n",
                static_cast<int>(cpMode.size()), cpMode.data(), static_cast<int>(cpTable.size()), cpTable.data());
    std::fflush(stdout);
    return 0;
}

int db_load(std::string_view /*cpDatabase*/, std::string_view cpTable) {
    std::printf("db_load: import is not available in this build, nothing loaded into %.*s\n",
                static_cast<int>(cpTable.size()), cpTable.data());
    std::fflush(stdout);
    return 1;
}

}  // namespace rv
