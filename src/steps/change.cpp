#include "steps/change.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "config/ini.hpp"
#include "config/product.hpp"
#include "steps/table_image.hpp"
#include "log/finish.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"
#include "sys/atomic_file.hpp"
#include "sys/file_io.hpp"
#include "sys/progress.hpp"
#include "config/files.hpp"
#include "sys/strings.hpp"

namespace rv {

namespace {

std::string joined(const std::vector<std::string>& list, std::size_t from) {
    std::string text;
    for (std::size_t k = from; k < list.size(); ++k) {
        if (k > from) {
            text += ',';
        }
        text += list[k];
    }
    return text;
}

// Ends the run; the image stays as it was (a new image being written goes
// with its owner on the way out).
[[noreturn]] void refuse(std::string_view table, const std::string& why) {
    std::string msg = "db_change: ";
    msg.append(why).append("; table ").append(table).append(" not changed");
    FINISH(RV_ERROR, msg);
}

// The INSERT script of `table` cannot be written: said on the console and in
// the protocol with the file and the reason, and the run ends, since the
// import would load the raw image.
[[noreturn]] void script_not_written(const std::string& table, const AtomicFile& out) {
    const std::string why = "cannot write the INSERT script: " + out.why();
    std::printf("db_change: %s\n", why.c_str());
    std::fflush(stdout);
    trap_db_err("db_change " + table, why);
    throw StepFailure("change of " + table + ": " + why);
}

void append_quoted(std::string& out, std::string_view value) {
    if (value == "NULL") {
        out += value;
        return;
    }
    out += '\'';
    // Runs between quotes go whole; a quote is doubled.
    for (std::size_t at = 0; at < value.size();) {
        const std::size_t quote = std::min(value.find('\'', at), value.size());
        out.append(value, at, quote - at);
        if (quote < value.size()) {
            out += "''";
        }
        at = quote + 1;
    }
    out += '\'';
}

// `value` without one pair of surrounding single quotes (a lone leading
// quote goes as well).
std::string unquoted(std::string value) {
    if (!value.empty() && value.front() == '\'') {
        value.erase(0, 1);
        if (!value.empty() && value.back() == '\'') {
            value.pop_back();
        }
    }
    return value;
}

// The column/value pairs of ADD_COLUMNS and ADD_VALUES, announced on the
// console as they are taken when `announce`.
std::vector<std::pair<std::string, std::string>> columns_to_add(const std::string& table, const std::string& section,
                                                                const std::string& columns,
                                                                const std::string& values, bool announce) {
    std::vector<std::pair<std::string, std::string>> pairs;
    const bool several = columns.find(',') != std::string::npos;
    const std::vector<std::string> cols = split(columns, ',', EmptyFields::drop);
    const std::vector<std::string> vals = split(values, ',', EmptyFields::drop);
    for (std::size_t i = 0; i < cols.size(); ++i) {
        if (i >= vals.size()) {
            if (i == 0) {
                FINISH(RV_ERROR, "db_change: Format error: No further token ',' in value list");
            }
            break;
        }
        if (vals[i].size() > kChangeValueMax || cols[i].size() > kChangeColumnNameMax) {
            refuse(table, "ADD_COLUMNS/ADD_VALUES of " + section + " exceed the limits (column name " +
                              std::to_string(kChangeColumnNameMax) + ", value " + std::to_string(kChangeValueMax) +
                              " characters): " + cols[i]);
        }
        if (announce) {
            std::printf("db_change call add_entry ( pstrFirstRow, %s, %s)\n", cols[i].c_str(), vals[i].c_str());
        }
        const std::string value = unquoted(vals[i]);
        WRITE_TRACE(2, "<add_entry> szColumn : %s", cols[i].c_str());
        WRITE_TRACE(2, "<add_entry> szTmp     : %s", value.c_str());
        pairs.emplace_back(cols[i], value);
        if (!several) {
            break;
        }
        if (announce) {
            std::printf("db_change after add_entry ( pstrFirstRow, %s, %s)\n", joined(cols, i + 1).c_str(),
                        joined(vals, i + 1).c_str());
        }
    }
    return pairs;
}

}  // namespace

bool iRead_columns_and_values(std::string_view line, strRow& row, std::string& why) {
    if (line.size() > kChangeLineMax) {
        row.columns.clear();
        why = "is longer than " + std::to_string(kChangeLineMax) + " characters";
        return false;
    }
    // The row's storage is reused: reading a row allocates nothing.
    row.columns.clear();
    for (std::size_t at = 0; at <= line.size();) {
        const std::size_t bar = std::min(line.find('|', at), line.size());
        const std::string_view element = line.substr(at, bar - at);
        at = bar + 1;
        if (element.empty()) {
            continue;
        }
        // The value is everything behind the first '=' (it may hold more).
        const auto eq = element.find('=');
        if (eq == std::string_view::npos || eq == 0) {
            row.columns.clear();
            clear_progress_line();
            std::printf("\n\nKein Token '=' verfuegbar.");
            console_mid_line();
            why = "holds an element without name=value: " + std::string(element);
            return false;
        }
        if (element.size() > kChangeElementMax || eq > kChangeColumnNameMax) {
            row.columns.clear();
            why = "holds an element longer than the limits (name " + std::to_string(kChangeColumnNameMax) +
                  ", name=value " + std::to_string(kChangeElementMax) + " characters): " +
                  std::string(element.substr(0, eq));
            return false;
        }
        row.columns.push_back({element.substr(0, eq), element.substr(eq + 1)});
    }
    if (row.columns.empty()) {
        clear_progress_line();
        std::printf("\n\nKein Token '|' verfuegbar in %.*s.", static_cast<int>(line.size()), line.data());
        console_mid_line();
        why = "holds no element";
        return false;
    }
    return true;
}

void add_entry(strRow& row, std::string_view szColumn, std::string_view szValue) {
    row.columns.push_back({szColumn, szValue});
    if (tracing(3)) {
        WRITE_TRACE(3, "<add_entry> Create new column Column: %.*s    Value: %.*s",
                    static_cast<int>(szColumn.size()), szColumn.data(), static_cast<int>(szValue.size()),
                    szValue.data());
    }
}

int delete_entry(strRow& row, std::string_view szColumn) {
    auto& cols = row.columns;
    const auto it = std::find_if(cols.begin(), cols.end(), [&](const strColumns& c) { return c.column == szColumn; });
    if (it == cols.end()) {
        return 0;
    }
    cols.erase(it);
    return 1;
}

namespace {

// The INSERT line of `row` into `line` (its storage reused row by row);
// false when its column or value list is longer than kChangeListMax.
bool insert_text(std::string& line, std::string_view table, const strRow& row) {
    line.assign("INSERT INTO ").append(table).append(" (");
    const std::size_t columns = line.size();
    for (std::size_t c = 0; c < row.columns.size(); ++c) {
        line.append(c == 0 ? "" : ",").append(row.columns[c].column);
    }
    if (line.size() - columns > kChangeListMax) {
        return false;
    }
    line.append(") VALUES (");
    const std::size_t values = line.size();
    for (std::size_t c = 0; c < row.columns.size(); ++c) {
        line.append(c == 0 ? "" : ",");
        append_quoted(line, row.columns[c].value);
    }
    line.append(");\n");
    return line.size() - 3 - values <= kChangeListMax;
}

}  // namespace

ChangeSection read_change_section(const std::string& table, bool announce) {
    ChangeSection keys;
    std::string& section = keys.name;
    section.append("[").append(glbvVersion.value_or("")).append(table).append("]");
    std::string columns = "KEY_NOT_FOUND";
    std::string values = "KEY_NOT_FOUND";
    std::string msg;
    const bool haveColumns =
        i_GetPrivateProfileString(rvdb_ini, section, "ADD_COLUMNS", columns, msg, kChangeKeySize);
    const bool haveValues = i_GetPrivateProfileString(rvdb_ini, section, "ADD_VALUES", values, msg, kChangeKeySize);
    WRITE_TRACE(1, "change table %s", table.c_str());
    if (announce) {
        std::printf("change table %s\n", table.c_str());
    }
    if (haveColumns || haveValues) {
        keys.additions = columns_to_add(table, section, columns, values, announce);
    }
    std::string del;
    if (i_GetPrivateProfileString(rvdb_ini, section, "DEL_COLUMNS", del, msg, kChangeKeySize)) {
        keys.deletions = split(del, ',', EmptyFields::drop);
    }
    std::fflush(stdout);
    return keys;
}

namespace {

// What the change section of a table asks for, and the columns each
// deletion removed.
struct ChangeKeys : ChangeSection {
    std::vector<int> deleted;

    explicit ChangeKeys(ChangeSection section)
        : ChangeSection(std::move(section)), deleted(deletions.size(), 0) {}
};

// Adds and drops the columns of `row` as `keys` say.
void apply_changes(strRow& row, ChangeKeys& keys) {
    for (const auto& [column, value] : keys.additions) {
        add_entry(row, column, value);
    }
    for (std::size_t d = 0; d < keys.deletions.size(); ++d) {
        keys.deleted[d] += delete_entry(row, keys.deletions[d]);
    }
}

// Writes an INSERT line for every row of the image `in` (read from `file`)
// into `out`, counting them on `progress`. A row beyond the limits, or an
// image that cannot be read to its end, ends the run with `out` dropped.
void write_inserts(std::FILE* in, AtomicFile& out, const std::string& table,
                   const std::string& file, ChangeKeys& keys, ProgressLine& progress) {
    LineReader lines(in);
    std::string_view line;
    std::string why;
    strRow row;
    std::string insert;
    std::size_t number = 0;
    while (lines.next(line)) {
        ++number;
        if (line.empty()) {
            continue;
        }
        if (!iRead_columns_and_values(line, row, why)) {
            std::fflush(stdout);
            refuse(table, "line " + std::to_string(number) + " of " + file + " " + why);
        }
        apply_changes(row, keys);
        if (row.columns.empty()) {
            break;  // a row without columns ends the table
        }
        if (!insert_text(insert, table, row)) {
            refuse(table,
                   "line " + std::to_string(number) + " of " + file + " makes a column or value list longer than " +
                       std::to_string(kChangeListMax) + " characters");
        }
        if (tracing(3)) {
            WRITE_TRACE(3, "%.*s", static_cast<int>(insert.size() - 1), insert.c_str());
        }
        std::fwrite(insert.data(), 1, insert.size(), out.stream());
        progress.advance();
    }
    if (lines.error() != 0) {
        refuse(table, "cannot read " + file + ": " + std::strerror(lines.error()));
    }
}

// Whether `file` starts as the INSERT scripts of this step do: the image
// was changed already.
bool already_changed(const std::string& file) {
    FilePtr in(std::fopen(file.c_str(), "r"));
    std::string first;
    return in && read_line(in.get(), first, LineFeed::keep) && first == kChangeScriptStart;
}

}  // namespace

void db_change(std::string_view cpTable, bool rerun) {
    const std::string table(cpTable);
    const std::string file = table_image_path(table);
    if (file.empty()) {
        refuse(table, kWorkDirUnknown);
    }
    if (rerun && already_changed(file)) {
        WRITE_TRACE(1, "change table %s: %s was written before the interruption, not changed again", table.c_str(),
                    file.c_str());
        std::printf("change table %s: %s was written before the interruption, not changed again\n", table.c_str(),
                    file.c_str());
        std::fflush(stdout);
        return;
    }
    WRITE_TRACE(2, "<iRead_columns_and_values> szTable: %s", table.c_str());
    WRITE_TRACE(2, "<iRead_columns_and_values> try to open file: %s", file.c_str());
    // A missing image (an empty table was dumped) gives a script that loads nothing.
    FilePtr in = open_sequential(file);
    if (!in) {
        std::printf("can not open file %s: return false\n", file.c_str());
        WRITE_TRACE(1, "can not open file %s: return false", file.c_str());
    }
    ChangeKeys keys(read_change_section(table, true));

    WRITE_TRACE(2, "<write_struct> szTable: %s", table.c_str());
    WRITE_TRACE(2, "<write_struct> try to open file: %s", file.c_str());
    AtomicFile out(file);
    if (!out.ok()) {
        std::printf("- can not open file %s return false.\n\n", out.temp().c_str());
        WRITE_TRACE(1, "- can not open file %s return false", out.temp().c_str());
        script_not_written(table, out);
    }
    std::fputs(std::string(kChangeScriptStart).c_str(), out.stream());
    if (in) {
        ProgressLine progress(STDERR_FILENO, "change " + table);
        if (progress.live()) {
            progress.set_total(LineFeedCount(file).update());  // a row a line
        }
        write_inserts(in.get(), out, table, file, keys, progress);
    }
    for (std::size_t d = 0; d < keys.deletions.size() && tracing(2); ++d) {
        WRITE_TRACE(2, "<delete_entry> szColumn: %s", keys.deletions[d].c_str());
        WRITE_TRACE(2, "<delete_entry> %d entries deleted", keys.deleted[d]);
    }
    in.reset();
    if (!out.commit()) {
        i_FILE_CLOSE(errno);
        script_not_written(table, out);
    }
}

}  // namespace rv
