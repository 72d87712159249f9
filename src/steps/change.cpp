#include "steps/change.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "config/ini.hpp"
#include "config/product.hpp"
#include "log/finish.hpp"
#include "log/trace.hpp"
#include "sys/atomic_file.hpp"
#include "sys/files.hpp"
#include "sys/file_io.hpp"

namespace rv {

namespace {

constexpr std::size_t kKeySize = 256;

std::string image_path(std::string_view table) { return pathes.var_work + "db_" + std::string(table) + ".tmp"; }

// The non-empty pieces of `text` split at `delim`.
std::vector<std::string> tokens(std::string_view text, char delim) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        const auto end = std::min(text.find(delim, pos), text.size());
        if (end > pos) {
            out.emplace_back(text.substr(pos, end - pos));
        }
        pos = end + 1;
    }
    return out;
}

// The rows a walk visits: up to the first row without columns.
std::size_t rows_in_use(const RowList& rows) {
    std::size_t n = 0;
    while (n < rows.size() && !rows[n].columns.empty()) {
        ++n;
    }
    return n;
}

[[noreturn]] void refuse(std::string_view table, const std::string& why) {
    FINISH(RV_ERROR, "db_change: " + why + "; table " + std::string(table) + " not changed");
}

std::string quoted(const std::string& value) {
    if (value == "NULL") {
        return value;
    }
    std::string out = "'";
    for (char c : value) {
        out += c;
        if (c == '\'') {
            out += '\'';
        }
    }
    return out + "'";
}

}  // namespace

bool iRead_columns_and_values(std::string_view szTable, RowList& rows) {
    const std::string file = image_path(szTable);
    if (strLog.iFlg > 1) {
        const std::string table(szTable);
        WRITE_TRACE(&strLog, "<iRead_columns_and_values> szTable: %s", table.c_str());
        WRITE_TRACE(&strLog, "<iRead_columns_and_values> try to open file: %s", file.c_str());
    }
    FilePtr fp(std::fopen(file.c_str(), "r"));
    if (!fp) {
        std::printf("can not open file %s: return false\n", file.c_str());
        if (strLog.iFlg > 0) {
            WRITE_TRACE(&strLog, "can not open file %s: return false", file.c_str());
        }
        return false;
    }
    std::string line;
    std::size_t number = 0;
    while (read_line(fp.get(), line)) {
        ++number;
        while (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        const std::string where = "line " + std::to_string(number) + " of " + file;
        if (line.size() > kChangeLineMax) {
            refuse(szTable, where + " is longer than " + std::to_string(kChangeLineMax) + " characters");
        }
        const std::vector<std::string> elements = tokens(line, '|');
        if (elements.empty()) {
            std::printf("\n\nKein Token '|' verfuegbar in %s.", line.c_str());
            std::fflush(stdout);
            refuse(szTable, where + " holds no element");
        }
        strRow row;
        for (const auto& element : elements) {
            // The value is everything behind the first '=' (it may hold more).
            const auto eq = element.find('=');
            if (eq == std::string::npos || eq == 0) {
                std::printf("\n\nKein Token '=' verfuegbar.");
                std::fflush(stdout);
                refuse(szTable, where + " holds an element without name=value: " + element);
            }
            if (element.size() > kChangeElementMax || eq > kChangeColumnNameMax) {
                refuse(szTable, where + " holds an element longer than the limits (name " +
                                    std::to_string(kChangeColumnNameMax) + ", name=value " +
                                    std::to_string(kChangeElementMax) + " characters): " + element.substr(0, eq));
            }
            row.columns.push_back({element.substr(0, eq), element.substr(eq + 1)});
        }
        rows.push_back(std::move(row));
        if (strLog.iFlg > 2) {
            WRITE_TRACE(&strLog, "<iRead_columns_and_values> set to next row");
        }
    }
    return true;
}

bool add_entry(RowList& rows, std::string_view szColumn, std::string_view szValue) {
    std::string value(szValue);
    if (!value.empty() && value.front() == '\'') {
        value.erase(0, 1);
        if (!value.empty() && value.back() == '\'') {
            value.pop_back();
        }
    }
    const std::string column(szColumn);
    if (strLog.iFlg > 1) {
        WRITE_TRACE(&strLog, "<add_entry> szColumn : %s", column.c_str());
        WRITE_TRACE(&strLog, "<add_entry> szTmp     : %s", value.c_str());
    }
    const std::size_t n = rows_in_use(rows);
    for (std::size_t i = 0; i < n; ++i) {
        rows[i].columns.push_back({column, value});
        if (strLog.iFlg > 2) {
            WRITE_TRACE(&strLog, "<add_entry> Create new column Column: %s    Value: %s", column.c_str(), value.c_str());
        }
    }
    return true;
}

int delete_entry(RowList& rows, std::string_view szColumn) {
    const std::string column(szColumn);
    if (strLog.iFlg > 1) {
        WRITE_TRACE(&strLog, "<delete_entry> szColumn: %s", column.c_str());
    }
    int deleted = 0;
    const std::size_t n = rows_in_use(rows);
    for (std::size_t i = 0; i < n; ++i) {
        auto& cols = rows[i].columns;
        for (auto it = cols.begin(); it != cols.end(); ++it) {
            if (it->column == column) {
                cols.erase(it);
                ++deleted;
                break;
            }
        }
    }
    if (strLog.iFlg > 1) {
        WRITE_TRACE(&strLog, "<delete_entry> %d entries deleted", deleted);
    }
    return deleted;
}

std::string insert_line(std::string_view table, const strRow& row) {
    std::string columns;
    std::string values;
    for (const auto& col : row.columns) {
        if (!columns.empty()) {
            columns += ',';
            values += ',';
        }
        columns += col.column;
        values += quoted(col.value);
    }
    return "INSERT INTO " + std::string(table) + " (" + columns + ") VALUES (" + values + ");";
}

bool write_struct(RowList& rows, std::string_view szTable) {
    const std::string file = image_path(szTable);
    if (strLog.iFlg > 1) {
        const std::string table(szTable);
        WRITE_TRACE(&strLog, "<write_struct> szTable: %s", table.c_str());
        WRITE_TRACE(&strLog, "<write_struct> try to open file: %s", file.c_str());
    }
    const std::size_t n = rows_in_use(rows);
    // Every row is checked before anything is written.
    for (std::size_t i = 0; i < n; ++i) {
        std::size_t columnList = 0;
        std::size_t valueList = 0;
        for (const auto& col : rows[i].columns) {
            columnList += col.column.size() + 1;
            valueList += quoted(col.value).size() + 1;
        }
        if (columnList - 1 > kChangeListMax || valueList - 1 > kChangeListMax) {
            refuse(szTable, "row " + std::to_string(i + 1) + " of " + file + " makes a column or value list longer than " +
                                std::to_string(kChangeListMax) + " characters");
        }
    }
    AtomicFile out(file);
    if (!out.ok()) {
        std::printf("- can not open file %s return false.\n\n", file.c_str());
        if (strLog.iFlg > 0) {
            WRITE_TRACE(&strLog, "- can not open file %s return false", file.c_str());
        }
        return false;
    }
    std::fputs("connect ravik_db\n", out.stream());
    for (std::size_t i = 0; i < n; ++i) {
        const std::string line = insert_line(szTable, rows[i]);
        if (strLog.iFlg > 2) {
            WRITE_TRACE(&strLog, "%s", line.c_str());
        }
        std::fputs(line.c_str(), out.stream());
        std::fputc('\n', out.stream());
    }
    rows.clear();
    if (!out.commit()) {
        i_FILE_CLOSE(errno);
        return false;
    }
    return true;
}

void db_change(std::string_view cpTable) {
    const std::string table(cpTable);
    RowList rows;
    iRead_columns_and_values(table, rows);

    const std::string section = "[" + glbvVersion.value_or("") + table + "]";
    std::string columns = "KEY_NOT_FOUND";
    std::string values = "KEY_NOT_FOUND";
    std::string msg;
    const bool haveColumns = i_GetPrivateProfileString(rvdb_ini, section, "ADD_COLUMNS", columns, msg, kKeySize);
    const bool haveValues = i_GetPrivateProfileString(rvdb_ini, section, "ADD_VALUES", values, msg, kKeySize);
    if (strLog.iFlg > 0) {
        WRITE_TRACE(&strLog, "change table %s", table.c_str());
    }
    std::printf("change table %s\n", table.c_str());

    if (haveColumns || haveValues) {
        const bool several = columns.find(',') != std::string::npos;
        const std::vector<std::string> cols = tokens(columns, ',');
        const std::vector<std::string> vals = tokens(values, ',');
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
            std::printf("db_change call add_entry ( pstrFirstRow, %s, %s)\n", cols[i].c_str(), vals[i].c_str());
            add_entry(rows, cols[i], vals[i]);
            if (!several) {
                break;
            }
            const auto rest = [](const std::vector<std::string>& list, std::size_t from) {
                std::string text;
                for (std::size_t k = from; k < list.size(); ++k) {
                    text += (k > from ? "," : "") + list[k];
                }
                return text;
            };
            std::printf("db_change after add_entry ( pstrFirstRow, %s, %s)\n", rest(cols, i + 1).c_str(),
                        rest(vals, i + 1).c_str());
        }
    }

    std::string del;
    if (i_GetPrivateProfileString(rvdb_ini, section, "DEL_COLUMNS", del, msg, kKeySize)) {
        for (const auto& column : tokens(del, ',')) {
            delete_entry(rows, column);
        }
    }
    std::fflush(stdout);
    write_struct(rows, table);
}

}  // namespace rv
