// Reading the script: lines through getline, statements through the line
// classifier, and the grouping of statements into units.
#include "loader/script.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace rv {

bool ScriptReader::next(std::string_view& line, std::size_t& number) {
    if (!lines_.next(line)) {
        return false;
    }
    number = ++number_;
    return true;
}

bool UnitReader::join_lines(std::string_view first, Quoting& quoting) {
    joined_.assign(first);
    std::string_view line;
    std::size_t number = 0;
    while (quoting != Quoting::None && reader_.next(line, number)) {
        joined_.append("\n").append(line);
        quoting = quoting_after(line, quoting);
    }
    return reader_.error() == 0;
}

// The next line that is not skipped, as a statement, with the lines it
// goes on with.
std::optional<Statement> UnitReader::read_statement() {
    std::string_view line;
    std::size_t number = 0;
    while (reader_.next(line, number)) {
        ScriptLine parsed = classify_line(line);
        if (parsed.kind == ScriptLineKind::Skip) {
            continue;
        }
        Statement statement;
        statement.line = number;
        // An INSERT of the fixed form closed every literal it holds.
        Quoting quoting = parsed.kind == ScriptLineKind::Connect || parsed.kind == ScriptLineKind::Insert
                              ? Quoting::None
                              : quoting_after(line, Quoting::None);
        if (quoting != Quoting::None) {
            if (!join_lines(line, quoting)) {
                return std::nullopt;
            }
            parsed = classify_line(joined_);
            statement.unterminated = quoting != Quoting::None;
            if (statement.unterminated) {
                parsed.kind = ScriptLineKind::Alone;
            }
        }
        statement.kind = parsed.kind;
        statement.text = std::string(parsed.text);
        if (parsed.kind == ScriptLineKind::Insert) {
            statement.prepared = shapes_.index_of(parsed.insert);
            statement.values = std::move(parsed.insert.values);
        }
        return statement;
    }
    return std::nullopt;
}

bool UnitReader::read_ahead() {
    if (ahead_.size() >= batch_ || ahead_bytes_ >= kUnitBytes) {
        return false;
    }
    std::optional<Statement> statement = read_statement();
    if (!statement) {
        return false;
    }
    ahead_bytes_ += statement->text.size();
    ahead_.push_back(std::move(*statement));
    return true;
}

std::optional<Statement> UnitReader::take() {
    if (ahead_.empty()) {
        return read_statement();
    }
    std::optional<Statement> first(std::move(ahead_.front()));
    ahead_.pop_front();
    ahead_bytes_ -= first->text.size();
    return first;
}

Unit UnitReader::next() {
    Unit unit;
    std::optional<Statement> first = take();
    if (!first) {
        return unit;
    }
    if (first->kind == ScriptLineKind::Connect) {
        unit.kind = Unit::Kind::Connect;
        unit.database = std::move(first->text);
        return unit;
    }
    unit.statements.push_back(std::move(*first));
    if (unit.statements.front().kind == ScriptLineKind::Alone) {
        unit.kind = Unit::Kind::Alone;
        return unit;
    }
    unit.kind = Unit::Kind::Batch;
    std::size_t bytes = unit.statements.front().text.size();
    while (unit.statements.size() < batch_ && bytes < kUnitBytes) {
        std::optional<Statement> more = take();
        if (!more) {
            break;
        }
        if (more->kind != ScriptLineKind::Insert && more->kind != ScriptLineKind::Pipelined) {
            ahead_bytes_ += more->text.size();
            ahead_.push_front(std::move(*more));
            break;
        }
        bytes += more->text.size();
        unit.statements.push_back(std::move(*more));
    }
    return unit;
}

bool values_as_bytes(const Statement& statement, bool scs_on) {
    return scs_on || std::none_of(statement.values.begin(), statement.values.end(),
                                  [](const std::optional<std::string>& value) {
                                      return value && value->find('\\') != std::string::npos;
                                  });
}

std::size_t ScriptCount::statements_through(std::size_t line) const {
    const auto others_through = std::upper_bound(others.begin(), others.end(), line) - others.begin();
    return std::min(statements, line - static_cast<std::size_t>(others_through));
}

std::optional<ScriptCount> count_statements(const std::string& file) {
    FilePtr in = open_sequential(file);
    if (!in) {
        return std::nullopt;
    }
    ScriptReader reader(std::move(in));
    ScriptCount count;
    std::string_view line;
    std::size_t number = 0;
    Quoting quoting = Quoting::None;
    while (reader.next(line, number)) {
        if (quoting != Quoting::None) {
            count.others.push_back(number);
            quoting = quoting_after(line, quoting);
        } else if (holds_statement(line)) {
            ++count.statements;
            quoting = quoting_after(line, Quoting::None);
        } else {
            count.others.push_back(number);
        }
    }
    if (reader.error() != 0) {
        return std::nullopt;
    }
    return count;
}

}  // namespace rv
