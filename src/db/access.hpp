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
// The acute accent that replaces a stray apostrophe, in the two client
// encodings the product's databases use.
inline constexpr std::string_view kAccentLatin1 = "\xB4";
inline constexpr std::string_view kAccentUtf8 = "\xC2\xB4";

// What a cleaned statement gives back.
enum class SqlForm {
    command,      // not a select: the affected-rows text
    calculated,   // count/sum/min/max without "group by": the first field
    export_text,  // a select in export mode: INSERT lines on standard output
    record_list,  // any other select: the record list and the row count
};

// The form a cleaned (SQL_LOWERCASE'd) statement takes.
SqlForm sql_form(std::string_view cpSqlCmd, bool bExport);

// Table name of a select: the first word after the first " from "; empty
// without " from ".
std::string select_table(std::string_view cpSqlCmd);

// Runs `cpSqlCmd`. `cpMsg` is exactly "export" to ask for the export form;
// afterwards it holds the result text (affected rows, computed value, row
// count, or the table name of an export) or the reason of a failure. A record
// list, when given, is emptied first. A failure of the server or the
// connection is printed on standard error and gives false. SIGINT and SIGTERM
// are at their default action during the call; SIGQUIT makes the call fail
// and the run go on.
bool iDB_ACCESS(std::string_view cpSqlCmd, std::string& cpMsg, DB_REC_LIS* pRL);

// The statement part of iDB_ACCESS, for a statement that is already cleaned;
// runs inside iDB_ACCESS's jump-protected region and must not be called
// anywhere else. `accents` are the positions where CLEANUP_QUOTA put the
// accent; it is written there in the connection's client encoding.
bool iPSQL_DO_SQL(const char* cpSqlCmd, char cExportFlg, std::string& cpMsg, DB_REC_LIS* pRL, std::span<const std::size_t> accents = {});

// Repairs the quotes of a statement written by others: in an update, a stray
// apostrophe inside an assigned literal becomes the acute accent (the byte
// 0xB4 here; `pAccents`, when given, receives its positions), and a double
// quote inside any literal becomes "_". Returns true when nothing changed.
bool CLEANUP_QUOTA(std::string& cpSqlCmd,
                   std::vector<std::size_t>* pAccents = nullptr);

// Lower-cases the statement up to its first single quote.
void SQL_LOWERCASE(std::string& cpSqlCmd);

// Makes `cpData` the only record of the list, with iRow 1.
bool iDB_SEL_FIRST(DB_REC_LIS* pRL, std::string_view cpData);

// Appends a record; its iRow is the number of records before it (so the
// second record carries 1 like the first). Refused on an empty list.
bool iDB_SEL_ALLOC(DB_REC_LIS* pRL, std::string_view cpData);

// SIGQUIT handler during iDB_ACCESS (and halt's clean-up handler there):
// writes its line on standard error and jumps back into iDB_ACCESS.
[[noreturn]] void signal_psql_handler(int signo);

}  // namespace rv
