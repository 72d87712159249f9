// The lines of a loader script, classified without a server: directives,
// skipped lines, the fixed INSERT form split into table, columns and values,
// and literal statements. The INSERT parser accepts only what it can split
// with certainty; everything else stays a literal statement.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rv {

// "INSERT INTO <table> (<col>,...) VALUES (<v>,...);" with every value a
// plain single-quoted literal ('' for a quote inside) or the bare word NULL.
// `table` and `columns` point into the parsed line.
struct InsertForm {
    std::string_view table;
    std::vector<std::string_view> columns;
    std::vector<std::optional<std::string>> values;  // nullopt: SQL NULL
};

enum class ScriptLineKind {
    Skip,       // empty line or "--" comment
    Connect,    // "connect <db>": selects the database
    Insert,     // the fixed INSERT form, sent with parameters
    Pipelined,  // one literal INSERT, UPDATE or DELETE statement
    Alone,      // any other statement: run by itself, outside a batch
};

struct ScriptLine {
    ScriptLineKind kind = ScriptLineKind::Skip;
    std::string_view text;  // the statement (or database name), line end stripped
    InsertForm insert;      // kind Insert only
};

// Parses the fixed INSERT form; nullopt when `line` is anything else (other
// literals such as numbers, E'...' or DEFAULT, quoted identifiers, a value
// count that differs from the column count, text after the semicolon).
std::optional<InsertForm> parse_insert(std::string_view line);

// True when `statement` is a single INSERT, UPDATE or DELETE that can run in
// a batch through the extended protocol: no second statement, no dollar
// quotes, comments or backslashes that would make the scan uncertain.
bool is_single_dml(std::string_view statement);

// Classifies one line of the script (trailing line end and blanks removed).
ScriptLine classify_line(std::string_view line);

// Where a line of a statement leaves it: outside every quoted literal (the
// statement ends with the line), or inside a single-quoted one that goes on
// in the next line, plain ('' for a quote) or E'...' (backslash escapes too).
enum class Quoting { None, Plain, Escaped };

// The quoting at the end of `line`, which begins in `quoting`. Outside a
// literal, a "--" comment ends the line, and a block comment, a quoted
// identifier or a dollar-quoted string is skipped where it closes on the
// line and ends it where it does not: only single-quoted literals go on.
Quoting quoting_after(std::string_view line, Quoting quoting);

// Whether `line` holds a statement (classify_line would say Insert,
// Pipelined or Alone), told without splitting an INSERT.
bool holds_statement(std::string_view line);

// A server message on one line: line breaks and tabs become blanks, runs of
// blanks shrink to one, blanks at both ends go.
std::string one_line(std::string_view message);

}  // namespace rv
