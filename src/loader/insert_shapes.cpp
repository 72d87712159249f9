// The prepared INSERT shapes: the key of a shape, the text of its single-row
// and group statements, and forgetting them when the server does.
#include "loader/insert_shapes.hpp"

#include <algorithm>
#include <utility>

namespace rv {

namespace {

// "<table> (<col>,...)", which names a shape and heads its statements,
// into `key`.
void shape_key(const InsertForm& form, std::string& key) {
    key.assign(form.table);
    key += " (";
    for (std::size_t i = 0; i < form.columns.size(); ++i) {
        if (i > 0) {
            key += ',';
        }
        key += form.columns[i];
    }
    key += ')';
}

// "<head> VALUES ($1,...),(...)" for `rows` rows of `columns` parameters.
PreparedInsert make_prepared(const std::string& head, int columns, std::size_t rows) {
    PreparedInsert prepared;
    prepared.params = static_cast<int>(rows) * columns;
    prepared.sql = head + " VALUES ";
    int param = 0;
    for (std::size_t row = 0; row < rows; ++row) {
        prepared.sql += row > 0 ? ",(" : "(";
        for (int column = 0; column < columns; ++column) {
            prepared.sql += (column > 0 ? ",$" : "$") + std::to_string(++param);
        }
        prepared.sql += ')';
    }
    return prepared;
}

}  // namespace

int InsertShapes::index_of(const InsertForm& form) {
    shape_key(form, key_);
    if (last_ >= 0 && key_ == prepared_[static_cast<std::size_t>(last_)].head) {
        return last_;  // the shape of the statement before, as a rule
    }
    if (const auto found = by_key_.find(key_); found != by_key_.end()) {
        return last_ = found->second;
    }
    const int columns = static_cast<int>(form.columns.size());
    prepared_.push_back(make_prepared("INSERT INTO " + key_, columns, 1));
    const int index = static_cast<int>(prepared_.size() - 1);
    prepared_.back().head = key_;
    if (const std::size_t rows = group_rows(columns); rows > 1) {
        prepared_.push_back(make_prepared("INSERT INTO " + key_, columns, rows));
        (*this)[index].group = index + 1;
    }
    by_key_.emplace(key_, index);
    return last_ = index;
}

std::size_t InsertShapes::group_rows(int columns) const {
    return std::min<std::size_t>(group_, kMaxParams / static_cast<std::size_t>(columns));
}

void InsertShapes::forget() {
    ++generation_;
    for (PreparedInsert& prepared : prepared_) {
        prepared.ready = false;
        prepared.parse_segment = 0;
        prepared.copy = -1;
    }
}

}  // namespace rv
