// What the loader says: the count of statements that succeeded and failed,
// the Error line of every failing statement, and the closing summary line.
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

    // Counts `statement` as failed and prints its Error line with `message`.
    void report(const Statement& statement, const std::string& message);

    // Counts `count` statements as succeeded.
    void add_succeeded(std::size_t count) { succeeded_ += count; }

    std::size_t succeeded() const { return succeeded_; }
    std::size_t failed() const { return failed_; }
    // Statements run so far, whatever their fate.
    std::size_t settled() const { return succeeded_ + failed_; }

  private:
    std::FILE* out_;
    bool echo_statement_;
    std::size_t succeeded_ = 0;
    std::size_t failed_ = 0;
};

// Prints the summary line to `out` (", stopped" when `stopped`) and
// flushes it.
void print_summary(std::FILE* out, std::size_t succeeded, std::size_t failed, bool stopped);

}  // namespace rv
