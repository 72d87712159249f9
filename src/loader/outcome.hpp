// What the loader says: the count of statements that succeeded and failed,
// the Error line of every failing statement, and the closing summary line.
// Nothing is said before it is on disk: statements are counted, and Error
// lines held back, until acknowledge() tells that everything committed so
// far is durable. An Error line says as well that the statements before it
// succeeded, and a stopped run's summary counts only what was acknowledged.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "loader/script.hpp"

namespace rv {

class Outcome {
  public:
    // Error lines go to `out`; `echo_statement` adds the failing statement.
    Outcome(std::FILE* out, bool echo_statement) : out_(out), echo_statement_(echo_statement) {}

    // Counts `statement` as failed, its Error line with `message` held back.
    void report(const Statement& statement, const std::string& message);

    // Counts `count` statements as succeeded, not yet acknowledged.
    void add_succeeded(std::size_t count) { pending_succeeded_ += count; }

    // Whether statements succeeded since the last acknowledgement.
    bool awaits_disk() const { return pending_succeeded_ > 0; }

    // Everything counted so far is durable: takes it into the counts and
    // prints the Error lines held back.
    void acknowledge();

    // Acknowledged statements.
    std::size_t succeeded() const { return succeeded_; }
    std::size_t failed() const { return failed_; }

  private:
    std::FILE* out_;
    bool echo_statement_;
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
