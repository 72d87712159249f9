#include "db/exec_statement.hpp"

#include <cstdio>
#include <string>

#include "db/access.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"

namespace rv {

bool iExecDbStatement(std::string_view /*cpDatabase*/, std::string_view cpStatement, std::string* reason) {
    const std::string statement(cpStatement);
    // The preset asks the database access for the export form of a select.
    std::string msg = "export";
    WRITE_TRACE(1, "%s", statement.c_str());
    std::printf("%s\n", statement.c_str());
    std::fflush(stdout);
    if (!iDB_ACCESS(statement, msg, nullptr)) {
        // A broken off call leaves the preset behind; the reason is apart.
        if (!db_failure().empty()) {
            msg = db_failure();
        }
        trap_db_err(statement, msg);
        WRITE_TRACE(1, "got error from statement: %s", msg.c_str());
        std::printf(" got error from statement: %s\n", msg.c_str());
        std::fflush(stdout);
        if (reason != nullptr) {
            *reason = msg;
        }
        return false;
    }
    return true;
}

}  // namespace rv
