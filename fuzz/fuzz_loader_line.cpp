// The loader's line classifier and INSERT parser, and its grouping of a
// script into units. Beyond crashes: an INSERT it parsed, written anew in
// the canonical form, parses to the same table, columns and values (NULL as
// NULL), and its values written as a line of COPY text read back the same
// (one line, one field a value); a connect line names a database without
// blanks around it; a server message
// made one line holds no line break, tab or double blank and stays as it is
// when made one line again; units keep their size and kinds, and their
// statements come in the order of their lines, the same whether or not the
// loader reads ahead between them.
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "loader/copy_text.hpp"
#include "loader/insert_shapes.hpp"
#include "loader/script.hpp"
#include "loader/statement.hpp"
#include "support.hpp"

namespace {

std::string canonical(const rv::InsertForm& form) {
    std::string line = "INSERT INTO " + std::string(form.table) + " (";
    for (std::size_t i = 0; i < form.columns.size(); ++i) {
        line += (i > 0 ? "," : "") + std::string(form.columns[i]);
    }
    line += ") VALUES (";
    for (std::size_t i = 0; i < form.values.size(); ++i) {
        line += i > 0 ? "," : "";
        if (!form.values[i]) {
            line += "NULL";
            continue;
        }
        line += '\'';
        for (const char c : *form.values[i]) {
            line.append(c == '\'' ? 2 : 1, c);
        }
        line += '\'';
    }
    return line + ");";
}

// The values of a line of COPY text (tab between fields, \\N for NULL,
// backslash escapes); nullopt when the line is not one line ending in a
// line feed.
std::optional<std::vector<std::optional<std::string>>> copy_fields(const std::string& data) {
    if (data.empty() || data.back() != '\n' || data.find('\n') != data.size() - 1) {
        return std::nullopt;
    }
    std::vector<std::optional<std::string>> fields;
    std::string field;
    bool null = false;
    for (std::size_t i = 0; i + 1 < data.size(); ++i) {
        const char c = data[i];
        if (c == '\t') {
            fields.push_back(null ? std::nullopt : std::optional(field));
            field.clear();
            null = false;
        } else if (c == '\\' && i + 2 < data.size()) {
            const char e = data[++i];
            null = e == 'N' && field.empty() && (data[i + 1] == '\t' || data[i + 1] == '\n');
            field += e == 't' ? '\t' : e == 'n' ? '\n' : e == 'r' ? '\r' : e;
        } else {
            field += c;
        }
    }
    fields.push_back(null ? std::nullopt : std::optional(field));
    return fields;
}

void check_line(std::string_view line) {
    const rv::ScriptLine parsed = rv::classify_line(line);
    FUZZ_CHECK(parsed.text.size() <= line.size());
    if (parsed.kind == rv::ScriptLineKind::Connect) {
        FUZZ_CHECK(!parsed.text.empty() && parsed.text.back() != ' ' && parsed.text.front() != ' ');
    }
    if (parsed.kind != rv::ScriptLineKind::Insert) {
        return;
    }
    const rv::InsertForm& form = parsed.insert;
    FUZZ_CHECK(!form.columns.empty() && form.columns.size() == form.values.size());
    const std::string again = canonical(form);
    const auto reparsed = rv::parse_insert(again);
    FUZZ_CHECK(reparsed && reparsed->table == form.table && reparsed->columns == form.columns);
    FUZZ_CHECK(reparsed->values == form.values);
    FUZZ_CHECK(rv::classify_line(again).kind == rv::ScriptLineKind::Insert);
    rv::Statement statement;
    statement.values = form.values;
    std::string data;
    rv::append_copy_row(statement, data);
    const auto fields = copy_fields(data);
    FUZZ_CHECK(fields && *fields == form.values);
}

void check_message(std::string_view text) {
    const std::string once = rv::one_line(text);
    FUZZ_CHECK(once.find_first_of("\n\r\t") == std::string::npos && once.find("  ") == std::string::npos);
    FUZZ_CHECK(once.empty() || (once.front() != ' ' && once.back() != ' '));
    FUZZ_CHECK(rv::one_line(once) == once);
}

// A unit as its kind, database and statements' lines and texts.
using UnitShape = std::pair<std::string, std::vector<std::pair<std::size_t, std::string>>>;

// The units of the whole input read as a script, `batch` statements at most,
// reading up to `ahead` statements ahead before each unit.
std::vector<UnitShape> check_units(const std::uint8_t* data, std::size_t size, std::size_t batch,
                                   std::size_t ahead) {
    std::vector<UnitShape> read;
    std::FILE* fp = fmemopen(const_cast<std::uint8_t*>(data), size, "r");
    if (fp == nullptr) {
        return read;
    }
    rv::InsertShapes shapes(batch);
    rv::UnitReader units(rv::FilePtr(fp), batch, shapes);
    std::size_t last = 0;
    for (;;) {
        std::size_t now_ahead = 0;
        while (now_ahead < ahead && units.read_ahead()) {
            ++now_ahead;
        }
        FUZZ_CHECK(now_ahead <= batch);
        const rv::Unit unit = units.next();
        if (unit.kind == rv::Unit::Kind::End) {
            break;
        }
        FUZZ_CHECK(unit.kind == rv::Unit::Kind::Connect ? unit.statements.empty() && !unit.database.empty()
                                                        : !unit.statements.empty());
        FUZZ_CHECK(unit.statements.size() <= (unit.kind == rv::Unit::Kind::Batch ? batch : 1));
        read.emplace_back(std::to_string(static_cast<int>(unit.kind)) + unit.database,
                          std::vector<std::pair<std::size_t, std::string>>{});
        for (const rv::Statement& statement : unit.statements) {
            FUZZ_CHECK(statement.line > last && statement.line <= units.lines());
            last = statement.line;
            const bool batched = statement.kind == rv::ScriptLineKind::Insert ||
                                 statement.kind == rv::ScriptLineKind::Pipelined;
            FUZZ_CHECK(batched == (unit.kind == rv::Unit::Kind::Batch));
            if (statement.kind == rv::ScriptLineKind::Insert) {
                FUZZ_CHECK(shapes[statement.prepared].params == static_cast<int>(statement.values.size()));
            }
            read.back().second.emplace_back(statement.line, statement.text);
        }
    }
    FUZZ_CHECK(units.error() == 0);
    return read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        check_line(text.substr(start, end - start));
        start = end + 1;
    }
    check_message(text);
    if (size > 0) {
        const std::size_t batch = 1 + data[0] % 8;
        FUZZ_CHECK(check_units(data + 1, size - 1, batch, 0) == check_units(data + 1, size - 1, batch, batch));
    }
    return 0;
}
