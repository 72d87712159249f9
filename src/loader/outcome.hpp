// What the loader says: the count of statements that succeeded and failed,
// the Error line of every failing statement, and the closing summary line.
// Nothing is said before it is on disk: statements are counted, and Error
// lines held back, until acknowledge() tells that everything committed so
// far is durable. An Error line says as well that the statements before it
// succeeded, and a stopped run's summary counts only what was acknowledged.
// With a position file, Error lines go to it as well until they are said,
// and every acknowledgement records the line it reaches.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "loader/position.hpp"
#include "loader/script.hpp"

namespace rv {

class Outcome {
  public:
    // Error lines go to `out` (and to `position`, when not null);
    // `echo_statement` adds the failing statement.
    Outcome(std::FILE* out, bool echo_statement, PositionFile* position)
        : out_(out), echo_statement_(echo_statement), position_(position) {}

    // Counts `statement` as failed, its Error line with `message` held back.
    void report(const Statement& statement, const std::string& message) {
        report(statement.line, statement.text, message);
    }

    // Counts the statement `text` of script line `line` as failed, its Error
    // line with `message` held back.
    void report(std::size_t line, std::string_view text, const std::string& message);

    // Counts a failure of an interrupted run as failed, its Error line
    // `line` (no line feed) held back.
    void report_again(const std::string& line);

    // Counts `count` statements as succeeded, not yet acknowledged.
    void add_succeeded(std::size_t count) { pending_succeeded_ += count; }

    // Whether statements succeeded since the last acknowledgement.
    bool awaits_disk() const { return pending_succeeded_ > 0; }

    // Everything counted so far is durable, and the script is done up to
    // line `through`: takes it into the counts, prints the Error lines held
    // back and records `through` as the durable line. Throws Stop when the
    // position file cannot be written.
    void acknowledge(std::size_t through);

    // Acknowledged statements.
    std::size_t succeeded() const { return succeeded_; }
    std::size_t failed() const { return failed_; }

  private:
    std::FILE* out_;
    bool echo_statement_;
    PositionFile* position_;
    std::size_t succeeded_ = 0;
    std::size_t failed_ = 0;
    std::size_t pending_succeeded_ = 0;
    std::size_t pending_failed_ = 0;
    std::string pending_lines_;
};

// Prints the summary line to `out` (", stopped" when `stopped`) and
// flushes it.
void print_summary(std::FILE* out, std::size_t succeeded, std::size_t failed, bool stopped);

}  // namespace rv
