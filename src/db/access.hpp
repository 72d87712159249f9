// The one entry through which the tool sends an SQL statement to the product
// database over the client library: the statement is cleaned, shielded
// against interruption and run in a fresh connection, and its result comes
// back as a count text, a single computed value, a record list or an export
// text on standard output. Statements that begin with "DA" or "MA" are
// requests for the database's date and column-name forms (db/dates.hpp).
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "db/sql_text.hpp"

namespace rv {

// One record of a query result: the text "|name=value|...|" and its number.
struct DB_REC_LIS_ELEMENT {
    int iRow = 0;
    std::string cpData;
};

// A record list, owned by the caller. `szId` names it in traces and messages.
struct DB_REC_LIS {
    std::string szId;
    std::vector<DB_REC_LIS_ELEMENT> records;

    int iRows() const { return static_cast<int>(records.size()); }
};

// Longest statement text handed to the server; a longer one is refused.
inline constexpr std::size_t kSqlStatementMax = 1023;
// Longest table name an export text can name; a longer one is refused.
inline constexpr std::size_t kTableNameMax = 29;
// Runs `cpSqlCmd`. `cpMsg` is exactly "export" to ask for the export form;
// afterwards it holds the result text (affected rows, computed value, row
// count, or the table name of an export) or the reason of a failure. A record
// list, when given, is emptied first. A failure of the server or the
// connection is printed on standard error and gives false, with `cpMsg` left
// as it was (see db_failure). SIGINT and SIGTERM are at their default action
// during the call; SIGQUIT makes the call fail and the run go on.
bool iDB_ACCESS(std::string_view cpSqlCmd, std::string& cpMsg, DB_REC_LIS* pRL);

// Why the last iDB_ACCESS call failed when the connection or the server
// failed or SIGQUIT broke it off: the reason on one line (session_failure),
// or "broken off by SIGQUIT". Empty after any other end of the call.
const std::string& db_failure();

// The statement part of iDB_ACCESS, for a statement that is already cleaned;
// runs inside iDB_ACCESS's jump-protected region and must not be called
// anywhere else. `accents` are the positions where CLEANUP_QUOTA put the
// accent; it is written there in the connection's client encoding.
bool iPSQL_DO_SQL(const char* cpSqlCmd, char cExportFlg, std::string& cpMsg, DB_REC_LIS* pRL, std::span<const std::size_t> accents = {});

// Makes `cpData` the only record of the list, with iRow 1.
bool iDB_SEL_FIRST(DB_REC_LIS* pRL, std::string_view cpData);

// Appends a record; its iRow is the number of records before it (so the
// second record carries 1 like the first). Refused on an empty list.
bool iDB_SEL_ALLOC(DB_REC_LIS* pRL, std::string_view cpData);

// SIGQUIT handler during iDB_ACCESS (and halt's clean-up handler there):
// writes its line on standard error and jumps back into iDB_ACCESS.
[[noreturn]] void signal_psql_handler(int signo);

}  // namespace rv
