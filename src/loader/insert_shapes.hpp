// The INSERT shapes of a script (table and column list) as prepared
// statements: one for a single row and, where it pays, one for a group of
// rows in one statement. Only text is made here; sending the Parse to the
// server is the pipeline's work.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "loader/statement.hpp"

namespace rv {

// Parameters one statement may carry (the protocol counts them in 16 bits).
inline constexpr std::size_t kMaxParams = 65535;

// One INSERT shape (table and column list) for one row, or for a group of
// rows of that shape in one statement; prepared once per connection.
struct PreparedInsert {
    std::string sql;
    int params = 0;
    std::string name;               // valid while `ready`
    bool ready = false;             // the server holds it
    std::size_t parse_segment = 0;  // the segment that last carried its Parse
    int group = -1;                 // one row: index of the group variant, once made
    std::string head;               // one row: "<table> (<col>,...)" as the script writes it
    int copy = -1;                  // one row: COPY may load its rows (1) or not (0); -1 not
                                    // asked on this connection yet
};

class InsertShapes {
  public:
    // `group`: rows per multi-row INSERT, at least 1.
    explicit InsertShapes(std::size_t group) : group_(group) {}

    // Index of the single-row statement for the shape of `form`; a new shape
    // gets its statement (and its group variant) on first sight.
    int index_of(const InsertForm& form);

    // Rows of `columns` values sent in one statement: the parameters of one
    // statement are limited.
    std::size_t group_rows(int columns) const;

    // The statement at `index` (from index_of or a `group` field).
    PreparedInsert& operator[](int index) { return prepared_[static_cast<std::size_t>(index)]; }
    const PreparedInsert& operator[](int index) const {
        return prepared_[static_cast<std::size_t>(index)];
    }

    // Statements that change the schema may invalidate what was prepared,
    // and a new connection knows nothing: prepare again under new names.
    void forget();

    // Counts the calls of forget(); part of every statement name.
    std::size_t generation() const { return generation_; }

  private:
    std::size_t group_;
    std::vector<PreparedInsert> prepared_;
    std::unordered_map<std::string, int> by_key_;
    std::size_t generation_ = 0;
    std::string key_;  // the key of the shape asked for last, its buffer
    int last_ = -1;    // the index of the shape found last
};

}  // namespace rv
