// One SQL statement against the product database, with its console report:
// the statement is printed, a failure is reported with its reason (for a
// failed connection or statement the server's message, see db_failure) on
// the console, in the trace and in the protocol log, and the run goes on.
#pragma once

#include <string>
#include <string_view>

namespace rv {

// Runs `cpStatement`. `cpDatabase` is accepted but not used: every statement
// reaches the product database. Returns true when the statement succeeded;
// else the reason goes to `reason` as well, when given.
bool iExecDbStatement(std::string_view cpDatabase, std::string_view cpStatement, std::string* reason = nullptr);

}  // namespace rv
