// The three forms of a select's result: a single computed value, a record
// list whose records are self-describing texts "|name=value|...|" (NULL as
// the word, values not escaped), and an export text of INSERT lines on
// standard output, closed by the row count.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "db/access.hpp"

typedef struct pg_result PGresult;

namespace rv {

// At most this many columns fit a record list or an export text.
inline constexpr int kMaxColumns = 100;

// The record text of row `row` of `res`.
std::string record_text(const PGresult* res, int row);

// The export line of row `row` of `res` for table `table`.
std::string export_line(const PGresult* res, int row, std::string_view table);

// The value of the first field of the first row into `cpMsg` (empty when the
// result has none). Returns true.
bool iPSQL_GET_CALCULATED_VALUE(const PGresult* res, std::string& cpMsg);

// Fills the list with one record per row and leaves the row count in
// `cpMsg`. Without a list the rows are only counted. More than kMaxColumns
// columns are refused (E017).
bool iPSQL_MAKE_DB_REC_LIS(const PGresult* res, std::string& cpMsg, DB_REC_LIS* pRL);

// Writes the export text for the table named in `cpMsg` on standard output,
// one INSERT statement per row, flushed per row, then "\n-- N rows found \n".
// More than kMaxColumns columns are refused (E017) before anything is
// written; `cpMsg` then holds the reason.
bool iPSQL_MAKE_EXPORT_FILE(const PGresult* res, std::string& cpMsg, DB_REC_LIS* pRL);

}  // namespace rv
