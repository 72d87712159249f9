// The table change step: reads a table image ("|name=value|...|" a line),
// adds columns with fixed values and drops columns as the update script's
// section "[<main version><table>]" says (ADD_COLUMNS, ADD_VALUES,
// DEL_COLUMNS), and replaces the image by an SQL script: "connect ravik_db"
// and one "INSERT INTO t (cols) VALUES (vals);" a row. Rows stream through
// one at a time, so a table of any size needs little memory; the image is
// replaced atomically. Nothing is cut: an image or a change beyond the limits
// below ends the run with a clear message and leaves the image as it was.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rv {

inline constexpr std::size_t kChangeLineMax = 1023;      // one image line
inline constexpr std::size_t kChangeElementMax = 255;    // "name=value"
inline constexpr std::size_t kChangeColumnNameMax = 31;  // a column name
inline constexpr std::size_t kChangeValueMax = 259;      // an added value
inline constexpr std::size_t kChangeListMax = 1999;      // the column or value list of one INSERT
// ADD_COLUMNS, ADD_VALUES and DEL_COLUMNS are read at this size: a longer
// value is cut to the size minus one.
inline constexpr std::size_t kChangeKeySize = 256;

// One column of a row: views into the image line it was read from, or into
// what add_entry was given, which must outlive the row.
struct strColumns {
    std::string_view column;
    std::string_view value;  // as read; the word NULL stands for SQL NULL
};

// One row. A row left without columns ends the table: rows behind it are
// not written.
struct strRow {
    std::vector<strColumns> columns;
};

// What the change section "[<main version><table>]" of a table asks for.
struct ChangeSection {
    std::string name;                                            // "[1.6.4.media]"
    std::vector<std::pair<std::string, std::string>> additions;  // column and value, as added to every row
    std::vector<std::string> deletions;                          // columns dropped
};

// Reads the change section of `table` as the change step does, ending the
// run (FINISH) where the step would; `announce` prints the step's console
// lines ("change table ...", "db_change call add_entry ...").
ChangeSection read_change_section(const std::string& table, bool announce);

// The first line of every INSERT script the change step writes.
inline constexpr std::string_view kChangeScriptStart = "connect ravik_db\n";

// The change step for `cpTable`. A `rerun` (the step was interrupted) whose
// image is already the INSERT script leaves it alone: the change is not
// applied twice. Fatal conditions end the run via FINISH.
void db_change(std::string_view cpTable, bool rerun = false);

// Reads the image line `line` into `row`, whose columns then point into it.
// Returns false with the reason in
// `why` when the line is malformed or beyond the limits (the German console
// notice of a malformed line has then been printed).
bool iRead_columns_and_values(std::string_view line, strRow& row, std::string& why);

// Appends column `szColumn` with `szValue` to `row`.
void add_entry(strRow& row, std::string_view szColumn, std::string_view szValue);

// Removes the first column named `szColumn` (case-sensitive) from `row`;
// returns 1 when one was removed, else 0.
int delete_entry(strRow& row, std::string_view szColumn);

}  // namespace rv
