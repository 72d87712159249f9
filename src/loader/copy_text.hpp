// What the loader's COPY path says to the server and hears from it: whether
// COPY may take a table, the COPY text of a row, the row a failed COPY
// names, and how many rows an attempt sends.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "loader/script.hpp"

namespace rv {

// The fewest rows worth a COPY: a shorter run goes as statements.
inline constexpr std::size_t kCopyMinRows = 16;
// Rows of a run read and loaded together through COPY, at most.
inline constexpr std::size_t kCopyRows = 30000;

// What starting an attempt costs, in rows the server could store meanwhile:
// a savepoint, a COPY and two answers take about 55 us, a row 1.35 us. The
// figure that loads fastest is lower (measured: 25), as an attempt that
// fails early sends fewer rows again.
inline constexpr double kAttemptStartRows = 25;
// Attempts of fewer rows have the server store a row at a time: its
// batches of rows cost more to set up than they save in a short COPY.
inline constexpr std::size_t kRowAtATime = 4096;

// How many rows an attempt sends. A failure costs the rows before it in its
// attempt, which go again, and every attempt costs its start: the size that
// makes both cheapest together is the square root of twice the start's cost
// times the rows between failures, as far as the load has seen them.
class AttemptSize {
  public:
    // Rows the next attempt sends, new ones: kCopyRows until a row failed.
    std::size_t rows() const;

    // The rows before `position` (counted over the whole load) are loaded.
    void reached(std::uint64_t position) { reached_ = std::max(reached_, position); }

    // The row at `position` failed.
    void failed_at(std::uint64_t position);

  private:
    double gap_ = 0;               // rows from one failure to the next, averaged
    bool failed_ = false;          // a row failed: gap_ and last_ hold
    std::uint64_t last_ = 0;       // the last failing row
    std::uint64_t reached_ = 0;    // the rows before it are loaded
};

// The query whether COPY may load the table named by `name` (SQL text: a
// literal or a parameter) as its statements would: one row, true or false;
// none when there is no such table.
std::string copy_question(const std::string& name);

// The table of `head` ("<table> (<col>,...)"), a plain name the script
// wrote.
std::string_view table_of(std::string_view head);

// The table of `head` as an SQL literal.
std::string table_literal(std::string_view head);

// The row (1 on) that a failed COPY names in its context `context` ("COPY
// <table>, line <n>..."), nullopt when it names none.
std::optional<std::size_t> copy_failure_row(std::string_view context);

// Appends the values of `statement` to `data` as one line of COPY text:
// tab-separated, \N for NULL, backslash, tab, line feed and carriage return
// escaped.
void append_copy_row(const Statement& statement, std::string& data);

}  // namespace rv
