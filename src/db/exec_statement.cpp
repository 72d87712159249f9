#include "db/exec_statement.hpp"

#include <string>

#include "log/finish.hpp"

namespace rv {

// Not built yet: database access arrives with the session layer. A statement
// that silently did nothing would look like a successful update, so the run
// ends here with an error status line naming the statement.
bool iExecDbStatement(std::string_view /*cpDatabase*/, std::string_view cpStatement) {
    FINISH(RV_ERROR, "iExecDbStatement: database access is not available in this build, statement not run: " +
                         std::string(cpStatement));
}

}  // namespace rv
