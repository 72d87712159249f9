// The table change step: reads a table image ("|name=value|...|" a line),
// adds columns with fixed values and drops columns as the update script's
// section "[<main version><table>]" says (ADD_COLUMNS, ADD_VALUES,
// DEL_COLUMNS), and replaces the image by an SQL script: "connect ravik_db"
// and one "INSERT INTO t (cols) VALUES (vals);" a row. The replacement is
// atomic. Nothing is cut: an image or a change beyond the limits below ends
// the run with a clear message and leaves the image as it was.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

inline constexpr std::size_t kChangeLineMax = 1023;      // one image line
inline constexpr std::size_t kChangeElementMax = 255;    // "name=value"
inline constexpr std::size_t kChangeColumnNameMax = 31;  // a column name
inline constexpr std::size_t kChangeValueMax = 259;      // an added value
inline constexpr std::size_t kChangeListMax = 1999;      // the column or value list of one INSERT

// One column of a row.
struct strColumns {
    std::string column;
    std::string value;  // as read; the word NULL stands for SQL NULL
};

// One row. A row without columns ends every walk over the rows.
struct strRow {
    std::vector<strColumns> columns;
};

using RowList = std::vector<strRow>;

// The change step for `cpTable`. Fatal conditions end the run via FINISH.
void db_change(std::string_view cpTable);

// Reads the image of `szTable` into `rows`. False when it cannot be opened
// (then `rows` stays empty). A malformed or overlong line ends the run.
bool iRead_columns_and_values(std::string_view szTable, RowList& rows);

// Appends column `szColumn` with `szValue` (one pair of surrounding single
// quotes removed) to every row. Returns true.
bool add_entry(RowList& rows, std::string_view szColumn, std::string_view szValue);

// Removes the first column named `szColumn` (case-sensitive) from every row;
// returns how many were removed.
int delete_entry(RowList& rows, std::string_view szColumn);

// The INSERT line of one row: values in single quotes (quotes inside doubled),
// the word NULL bare.
std::string insert_line(std::string_view table, const strRow& row);

// Replaces the image of `szTable` by the SQL script and empties `rows`.
// False when the file cannot be written.
bool write_struct(RowList& rows, std::string_view szTable);

}  // namespace rv
