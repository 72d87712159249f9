// Reading the script: its lines (of any length, bytes as they stand), the
// statements they hold, and the units the loader runs one after the other:
// a database switch, a statement that runs alone, or a batch of INSERT,
// UPDATE and DELETE statements.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "loader/insert_shapes.hpp"
#include "loader/statement.hpp"
#include "sys/file_io.hpp"

namespace rv {

// A statement of the script, or (kind Connect) a database to switch to,
// named in `text`. A statement whose line ends inside a quoted literal goes
// on with the next line, joined by a line feed, until a line ends outside
// every literal; `line` is its first line, by which it is known.
struct Statement {
    std::size_t line = 0;
    bool unterminated = false;  // kind Alone: the script ended inside a literal
    ScriptLineKind kind = ScriptLineKind::Pipelined;
    std::string text;
    int prepared = -1;  // kind Insert: index of its prepared statement
    std::vector<std::optional<std::string>> values;
};

// Statement text a batch holds, at most (it holds at least one statement).
inline constexpr std::size_t kUnitBytes = 8 * 1024 * 1024;

// Whether the values of the INSERT `statement` mean their bytes, sent as
// parameters or COPY text: always where the server reads backslashes in
// quotes as they stand (`scs_on`), else only when none holds a backslash.
bool values_as_bytes(const Statement& statement, bool scs_on);

// What the executor takes next from the script.
struct Unit {
    enum class Kind { End, Connect, Alone, Batch } kind = Kind::End;
    std::vector<Statement> statements;  // Alone: exactly one
    std::string database;               // Connect
};

// The script, line by line.
class ScriptReader {
  public:
    // Takes over the open script `file`.
    explicit ScriptReader(FilePtr file) : file_(std::move(file)), lines_(file_.get()) {}

    // Next line (without its line end) and its number; false at the end of
    // the script or on a read error (see error()). `line` stays valid until
    // the next call.
    bool next(std::string_view& line, std::size_t& number);

    // The errno of a failed read, 0 when there was none.
    int error() const { return lines_.error(); }

    // The number of lines read so far.
    std::size_t lines() const { return number_; }

  private:
    FilePtr file_;
    LineReader lines_;
    std::size_t number_ = 0;
};

// Groups the statements of the script into units.
class UnitReader {
  public:
    // Reads the open script `file`; batches hold at most `batch` (>= 1)
    // statements and kUnitBytes of text, INSERT shapes are registered in
    // `shapes`.
    UnitReader(FilePtr file, std::size_t batch, InsertShapes& shapes)
        : reader_(std::move(file)), batch_(batch), shapes_(shapes) {}

    // The next unit; kind End at the end of the script or on a read error.
    Unit next();

    // Reads one statement ahead for next(), while fewer than a batch are
    // ahead; false when it read none (enough ahead, the end of the script
    // or a read error). Lets the loader read while the server works.
    bool read_ahead();

    // The errno of a failed read, 0 when there was none.
    int error() const { return reader_.error(); }

    // The number of lines read so far: at the end, the script's last line.
    std::size_t lines() const { return reader_.lines(); }

  private:
    std::optional<Statement> read_statement();

    // The statement read ahead first, else the next one read.
    std::optional<Statement> take();

    // Joins the lines after `first` to it while `quoting` is open; false on
    // a read error.
    bool join_lines(std::string_view first, Quoting& quoting);

    ScriptReader reader_;
    std::string joined_;  // the lines of the statement being read
    std::size_t batch_;
    InsertShapes& shapes_;
    std::deque<Statement> ahead_;  // read, not taken yet
    std::size_t ahead_bytes_ = 0;  // their text
};

// The statements of a script, counted for a progress line: how many, and
// the lines that begin none (empty lines, comments, connect lines, the
// lines that go on with a statement).
struct ScriptCount {
    std::size_t statements = 0;
    std::vector<std::size_t> others;  // line numbers, ascending

    // The statements on lines 1 to `line`.
    std::size_t statements_through(std::size_t line) const;
};

// Counts the statements of the script `file`; nullopt when it cannot be read.
std::optional<ScriptCount> count_statements(const std::string& file);

}  // namespace rv
