// Date, date-with-time and aggregate column-name forms of the configured
// database type (global variable gv_db_type: "ORACLE", "OpenAccess" or
// "postgres"), asked for through iDB_ACCESS with a keyword instead of SQL.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>


namespace rv {

// The value to convert is cut to this many characters.
inline constexpr std::size_t kDateValueMax = 31;

// A date YYYY-MM-DD in the database's form: YYYYMMDD for ORACLE, the date
// with " 00:00:00" for OpenAccess and postgres, empty otherwise.
std::string& cpDB_DATE(std::string_view input, std::string& output);

// A database date in the product's form, decided by the second letter of the
// type: 'R' turns YYYYMMDD into YYYY-MM-DD, 'o' and 'p' keep the first ten
// characters of the input followed by " 00:00:00"; empty otherwise.
std::string& cpDB_DATE_RAVIK(std::string_view input, std::string& output);

// A date with time: unchanged for the three known types, empty otherwise.
std::string& cpDB_DATE_TIME_RAVIK(std::string_view input, std::string& output);

// Column name of a maximum: the input for ORACLE, "COL1" for OpenAccess,
// "max" for postgres, empty otherwise.
std::string& cpDB_MAX_COL_NAME(std::string_view cpInput, std::string& cpOutput);

// Converts the value in `cpMsg` by the keyword DATE, DATE_RAVIK,
// DATE_TIME_RAVIK or MAX. Any other keyword is refused (E008) with
// "wrong function-argument: <keyword>" in `cpMsg`.
bool iDB_CONVERT_DATE_TIME(std::string_view cpKeyWord, std::string& cpMsg);

}  // namespace rv
