// Table dumps through the database client program: a select runs as
// "psql -e -d ravik_db -P null=NULL -A -c ..." with its answer in
// "<gv_rw_tmp><id>.sqo" (the statement recorded in "<id>.sqi"), and the
// answer becomes the table image "<gv_rw_work>db_<id>.tmp": one line a row,
// "|name=value|...|". An answer that cannot be turned into a faithful image
// (a value holding "|" or a line break, a row count that does not add up,
// too many columns, overlong or empty names or names holding "=") fails the
// dump: no image is left, the .sqi and .sqo files stay for inspection. The
// client reads its settings from "<gv_rw_tmp><id>.psqlrc", written by the
// tool for the dump (through PSQLRC; the operator's own settings file is not
// read): it fetches the rows kDumpFetchRows at a time, so its memory does
// not grow with the table.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>


namespace rv {

// Columns a dump can carry, and the longest column name (in bytes).
inline constexpr std::size_t kDumpColumnsMax = 30;
inline constexpr std::size_t kDumpColumnNameMax = 15;
// Rows the client fetches at a time.
inline constexpr int kDumpFetchRows = 10000;

// Runs `cpSql` for the identifier `cpId` (a table name) through the client,
// as a statement a quit signal may break off. Returns true on success with
// the row count in `cpMsg`; false with the reason in `cpMsg` (a quit signal
// that broke the statement off included).
bool iSELECT_INTO_TEMP_FILE(std::string_view cpId, std::string_view cpSql, std::string& cpMsg);

// Converts the client's answer `cpSqlOutFile` into the table image of
// `cpId`. Returns true with the row count in `cpMsg`; false with the reason.
// No rows: the image is removed.
bool iPGSQL_MAKE_DB_GET_FILE(std::string_view cpId, const std::string& cpSqlOutFile, std::string& cpMsg);

}  // namespace rv
