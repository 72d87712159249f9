#include "db/records.hpp"
#include "log/trace.hpp"

#include <libpq-fe.h>

#include <cstdio>
#include <new>

#include "log/prot.hpp"

namespace rv {

namespace {

constexpr std::string_view kNull = "NULL";

// Per column: the name, "=", the value and the separator, with room to spare.
constexpr std::size_t kRecordSlack = 4;

std::string value_of(const PGresult* res, int row, int col) {
    return std::string(PQgetvalue(res, row, col),
                       static_cast<std::size_t>(PQgetlength(res, row, col)));
}

// Refuses a result with more columns than the name table holds.
bool columns_fit(const PGresult* res, std::string& cpMsg, const char* cpFunction,
                 const std::string& szId) {
    if (PQnfields(res) <= kMaxColumns) {
        return true;
    }
    cpMsg = "too much columns ( max " + std::to_string(kMaxColumns) + " )";
    WRITE_TRACE(1, "--- %s  ERROR: %s", cpFunction, cpMsg.c_str());
    switch (eLang) {
        case LANG_DE:
            PROT("E017-DATABAS %s %s: zu viele Spalten", cpFunction, szId.c_str());
            break;
        case LANG_BA:
            PROT("E017-DATABAS %s %s: z´vuil Spaltn", cpFunction, szId.c_str());
            break;
        default:
            PROT("E017-DATABAS %s %s: too much columns.", cpFunction, szId.c_str());
            break;
    }
    return false;
}

void trace_column_names(const PGresult* res) {
    for (int col = 0; col < PQnfields(res) && tracing(2); ++col) {
        WRITE_TRACE(2, "Column name %s", PQfname(res, col));
    }
}

// The memory a record of `row` was once given: per column its name, "=",
// its value and kRecordSlack.
std::size_t record_size(const PGresult* res, int row) {
    std::size_t size = 0;
    for (int col = 0; col < PQnfields(res); ++col) {
        const std::size_t value = PQgetisnull(res, row, col)
                                      ? kNull.size()
                                      : static_cast<std::size_t>(PQgetlength(res, row, col));
        size += std::string_view(PQfname(res, col)).size() + 1 + kRecordSlack + value;
    }
    return size;
}

void protocol_no_memory(const std::string& szId, std::size_t size) {
    switch (eLang) {
        case LANG_DE:
            PROT("E011-DATABAS %s %s: kann keine Memory allokieren  ( %zu Bytes)",
                 "PSQL_MAKE_REC_LIS", szId.c_str(), size);
            break;
        case LANG_BA:
            PROT("E011-DATABAS %s %s: ko koan Memory allokieren ( %zu Bytes )",
                 "PSQL_MAKE_REC_LIS", szId.c_str(), size);
            break;
        default:
            PROT("E011-DATABAS %s %s: cannot allocate memory  ( %zu Bytes)",
                 "PSQL_MAKE_REC_LIS", szId.c_str(), size);
            break;
    }
}

// Appends the record of `row` to the list (the first one starts it afresh).
bool add_record(const PGresult* res, int row, std::string& cpMsg, DB_REC_LIS* pRL) {
    const std::size_t size = record_size(res, row);
    WRITE_TRACE(2, "Record size %zu", size);
    try {
        const std::string text = record_text(res, row);
        WRITE_TRACE(3, "Value: %s", text.c_str());
        return row == 0 ? iDB_SEL_FIRST(pRL, text) : iDB_SEL_ALLOC(pRL, text);
    } catch (const std::bad_alloc&) {
        cpMsg = "cannot allocate memory  ( " + std::to_string(size) + " bytes)";
        WRITE_TRACE(2, "--- PSQL_MAKE_DB_REC_LIS  error: %s", cpMsg.c_str());
        protocol_no_memory(pRL->szId, size);
        return false;
    }
}

}  // namespace

std::string record_text(const PGresult* res, int row) {
    std::string text = "|";
    for (int col = 0; col < PQnfields(res); ++col) {
        text.append(PQfname(res, col)).append("=");
        if (PQgetisnull(res, row, col)) {
            text.append(kNull);
        } else {
            text.append(PQgetvalue(res, row, col),
                        static_cast<std::size_t>(PQgetlength(res, row, col)));
        }
        text.append("|");
    }
    return text;
}

std::string export_line(const PGresult* res, int row, std::string_view table) {
    std::string line = "INSERT INTO ";
    line.append(table).append(" (");
    for (int col = 0; col < PQnfields(res); ++col) {
        line.append(col > 0 ? "," : "").append(PQfname(res, col));
    }
    line.append(") VALUES (");
    for (int col = 0; col < PQnfields(res); ++col) {
        line.append(col > 0 ? "," : "");
        if (PQgetisnull(res, row, col)) {
            line.append(kNull);
        } else {
            // A quote inside the value is doubled, so the line loads as the same value.
            // The loader reads one statement a line: a line feed goes as \n in an
            // escape string, whose backslashes are then doubled as well.
            const std::string value = value_of(res, row, col);
            const bool escaped = value.find('\n') != std::string::npos;
            line.append(escaped ? "E'" : "'");
            for (const char c : value) {
                if (escaped && c == '\n') {
                    line.append("\\n");
                } else {
                    line.append(c == '\'' || (escaped && c == '\\') ? 2 : 1, c);
                }
            }
            line.append("'");
        }
    }
    line.append(");\n");
    return line;
}

bool iPSQL_GET_CALCULATED_VALUE(const PGresult* res, std::string& cpMsg) {
    WRITE_TRACE(2, "+++ PSQL_GET_CALCULATED_VALUE");
    cpMsg.clear();
    if (PQntuples(res) > 0 && PQnfields(res) > 0) {
        cpMsg = value_of(res, 0, 0);
    }
    WRITE_TRACE(2, "--- PSQL_GET_CALCULATED_VALUE  returns %d  value=%s", 1,
                cpMsg.c_str());
    return true;
}

bool iPSQL_MAKE_DB_REC_LIS(const PGresult* res, std::string& cpMsg, DB_REC_LIS* pRL) {
    const std::string szId = pRL != nullptr ? pRL->szId : std::string();
    WRITE_TRACE(2, "+++ iPSQL_MAKE_DB_REC_LIS  id=%s", szId.c_str());
    if (!columns_fit(res, cpMsg, "PSQL_MAKE_DB_REC_LIS", szId)) {
        return false;
    }
    trace_column_names(res);
    WRITE_TRACE(3, "read the values");
    const int rows = PQntuples(res);
    for (int row = 0; pRL != nullptr && row < rows; ++row) {
        if (!add_record(res, row, cpMsg, pRL)) {
            return false;
        }
    }
    cpMsg = std::to_string(rows);
    WRITE_TRACE(2, "--- PSQL_MAKE_DB_REC_LIS   rows=%s", cpMsg.c_str());
    return true;
}

bool iPSQL_MAKE_EXPORT_FILE(const PGresult* res, std::string& cpMsg, DB_REC_LIS* pRL) {
    WRITE_TRACE(2, "+++ iPSQL_MAKE_EXPORT_FILE");
    WRITE_TRACE(3, "read the columns");
    const std::string table = cpMsg;
    if (!columns_fit(res, cpMsg, "PSQL_MAKE_EXPORT_FILE", pRL != nullptr ? pRL->szId : table)) {
        return false;
    }
    trace_column_names(res);
    const int rows = PQntuples(res);
    for (int row = 0; row < rows; ++row) {
        std::fputs(export_line(res, row, table).c_str(), stdout);
        std::fflush(stdout);
    }
    std::printf("\n-- %d rows found \n", rows);
    std::fflush(stdout);
    WRITE_TRACE(2, "--- iPSQL_MAKE_EXPORT_FILE");
    return true;
}

}  // namespace rv
