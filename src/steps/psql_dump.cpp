#include "steps/psql_dump.hpp"
#include "log/trace.hpp"


#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "config/glbv.hpp"
#include "db/signals.hpp"
#include "sys/atomic_file.hpp"
#include "config/files.hpp"
#include "config/process.hpp"
#include "sys/strings.hpp"
#include "sys/file_io.hpp"

namespace rv {

namespace {

// Characters the shell would act on inside the client's double-quoted -c
// argument: a statement holding one is refused rather than changed.
constexpr std::string_view kShellActive = "\"$`\\";

// A product directory: the global variable `name`, or else the [PATHES] key
// of that name; "" when neither is known.
std::string product_dir(const std::string& name) {
    std::string dir = name + ":";
    if (resolve_glbv(dir)) {
        return dir;
    }
    resolve_path(dir);
    return dir == name + ":" ? std::string() : dir;
}

// The client's row count footer: exactly "(N rows)" or "(1 row)".
bool parse_footer(const std::string& line, long& count) {
    char tail[8] = {};
    int used = 0;
    if (std::sscanf(line.c_str(), "(%ld %6[rows])%n", &count, tail, &used) != 2 ||
        static_cast<std::size_t>(used) != line.size()) {
        return false;
    }
    return std::string_view(tail) == "rows" || (std::string_view(tail) == "row" && count == 1);
}

enum class RunResult { finished, interrupted, refused };

// Runs the client command line `cmd`; when `interruptible`, a quit signal
// breaks the wait off (the client, with everything it started, is stopped).
RunResult run_client(std::string cmd, bool interruptible) {
    const ChildEnd end = run_reported({cmd, {}, interruptible ? kSigquitText : nullptr, true}, cmd);
    switch (end.how) {
        case ChildEnd::How::interrupted:
            return RunResult::interrupted;
        case ChildEnd::How::refused:
            return RunResult::refused;
        default:
            return RunResult::finished;
    }
}

bool do_sql(std::string_view cpId, std::string_view cpSqlCmd, std::string& cpMsg,
            bool interruptible, bool& interrupted) {
    const std::string id(cpId);
    const std::string sql(cpSqlCmd);
    WRITE_TRACE(1, "+++ PGSQL_DO_SQL   %s  %s ", id.c_str(), sql.c_str());
    const auto fail = [&](const std::string& msg) {
        cpMsg = msg;
        WRITE_TRACE(1, "--- PGSQL_DO_SQL Return 0: %s  %s ", sql.c_str(), cpMsg.c_str());
        return false;
    };
    if (sql.find_first_of(kShellActive) != std::string::npos) {
        return fail("iPGSQL_DO_SQL: statement holds a character the shell would change (\" $ ` \\): " + sql);
    }
    const std::string tmpDir = product_dir("gv_rw_tmp");
    if (tmpDir.empty()) {
        return fail("iPGSQL_DO_SQL: directory gv_rw_tmp unknown (neither global variable nor rv.ini key)");
    }
    const std::string sqi = tmpDir + id + ".sqi";
    const std::string sqo = tmpDir + id + ".sqo";
    {
        FilePtr in(std::fopen(sqi.c_str(), "w"));
        if (!in) {
            WRITE_TRACE(1, "--- PGSQL_DO_SQL  cannot open file %s to write", sqi.c_str());
            return false;
        }
        std::fprintf(in.get(), "%s\n", sql.c_str());
        if (std::fclose(in.release()) != 0) {
            i_FILE_CLOSE(errno);
        }
    }

    const std::string cmd = "psql -e -d ravik_db -P null=NULL -A -c \"" + sql + "\" 2>&1 > " + sqo;
    WRITE_TRACE(1, "Systemcall: %s ", cmd.c_str());
    // An answer left from an earlier run must not be taken for this one.
    std::remove(sqo.c_str());
    switch (run_client(cmd, interruptible)) {
        case RunResult::interrupted:
            interrupted = true;
            return false;
        case RunResult::refused:
            return fail("iPGSQL_DO_SQL: the environment for the database client could not be prepared");
        case RunResult::finished:
            break;
    }

    std::string answer = " rows)|OR| row)";
    if (!file_search(sqo, answer)) {
        answer = "INSERT |OR|UPDATE ";
        if (!file_search(sqo, answer)) {
            std::string error = "ERROR:^";
            return fail(file_search(sqo, error)
                            ? error
                            : "didn't find expected strings in database answer; please examine file " + sqo);
        }
    }
    WRITE_TRACE(1, "answer from database: %s ", answer.c_str());
    cpMsg = answer;
    const bool ok = iPGSQL_MAKE_DB_GET_FILE(id, sqo, cpMsg);
    if (ok) {
        std::remove(sqi.c_str());
        std::remove(sqo.c_str());
    }
    WRITE_TRACE(1, "--- PGSQL_DO_SQL   %s ", cpMsg.c_str());
    return ok;
}

}  // namespace

std::string table_image_path(std::string_view cpId) {
    const std::string dir = product_dir("gv_rw_work");
    return dir.empty() ? std::string() : dir + "db_" + std::string(cpId) + ".tmp";
}

bool iSELECT_INTO_TEMP_FILE(std::string_view cpId, std::string_view cpSql, std::string& cpMsg) {
    WRITE_TRACE(1, "+++ iSELECT_INTO_TEMP_FILE  id:%.*s sql:%.*s", static_cast<int>(cpId.size()), cpId.data(),
                static_cast<int>(cpSql.size()), cpSql.data());
    bool interrupted = false;
    const bool ok = do_sql(cpId, cpSql, cpMsg, true, interrupted);
    if (interrupted) {
        return false;
    }
    WRITE_TRACE(1, "--- iSELECT_INTO_TEMP_FILE  returns %d  msg:%s", ok ? 1 : 0, cpMsg.c_str());
    return ok;
}

bool iPGSQL_MAKE_DB_GET_FILE(std::string_view cpId, const std::string& cpSqlOutFile, std::string& cpMsg) {
    const std::string id(cpId);
    WRITE_TRACE(1, "+++ iPGSQL_MAKE_DB_GET_FILE");
    const std::string image = table_image_path(id);
    // Every failure leaves no image behind: neither a half-written one nor
    // an older one that a later import would load instead.
    const auto fail = [&](const std::string& msg) {
        cpMsg = msg;
        if (!image.empty()) {
            std::remove(image.c_str());
        }
        WRITE_TRACE(1, "--- PGSQL_MAKE_DB_GET_FILE returns -1: %s ", cpMsg.c_str());
        return false;
    };
    if (image.empty()) {
        return fail("iPGSQL_MAKE_DB_GET_FILE: directory gv_rw_work unknown (neither global variable nor rv.ini key)");
    }
    AtomicFile out(image);
    if (!out.ok()) {
        return fail("Can't open file " + image + " to write");
    }
    FilePtr in(std::fopen(cpSqlOutFile.c_str(), "r"));
    if (!in) {
        return fail("Can't open file " + cpSqlOutFile + " to read");
    }
    std::string line;
    read_line(in.get(), line);  // the echoed statement
    if (!read_line(in.get(), line)) {
        return fail("Can't find lines with column-names");
    }
    const std::vector<std::string> names = split(line, '|', EmptyFields::keep);
    for (const auto& name : names) {
        WRITE_TRACE(3, "column: %s ", name.c_str());
    }
    WRITE_TRACE(3, "read the values");
    // Checked once the answer is known to be a query result.
    const auto check_columns = [&]() -> std::string {
        if (names.size() > kDumpColumnsMax) {
            return "iPGSQL_MAKE_DB_GET_FILE: " + id + " has " + std::to_string(names.size()) +
                   " columns, a table image holds at most " + std::to_string(kDumpColumnsMax);
        }
        for (const auto& name : names) {
            if (name.size() > kDumpColumnNameMax) {
                return "iPGSQL_MAKE_DB_GET_FILE: column name " + name + " of " + id + " has " +
                       std::to_string(name.size()) + " bytes, a table image allows at most " +
                       std::to_string(kDumpColumnNameMax);
            }
        }
        return {};
    };
    std::vector<std::string> lowerNames = names;
    for (auto& name : lowerNames) {
        lowercase(name);
    }

    long rows = 0;
    long footerCount = -1;
    while (read_line(in.get(), line)) {
        if (parse_footer(line, footerCount)) {
            break;
        }
        if (rows == 0) {
            if (const std::string refusal = check_columns(); !refusal.empty()) {
                return fail(refusal);
            }
        }
        WRITE_TRACE(3, "values: %s ", line.c_str());
        std::vector<std::string> values = split(line, '|', EmptyFields::keep);
        if (values.size() != names.size()) {
            return fail("iPGSQL_MAKE_DB_GET_FILE: row " + std::to_string(rows + 1) + " of " + id + " has " +
                        std::to_string(values.size()) + " fields for " + std::to_string(names.size()) +
                        " columns (a value holding '|' or a line break cannot be dumped): " + line);
        }
        std::string record = "|";
        for (std::size_t i = 0; i < names.size(); ++i) {
            record += lowerNames[i] + "=" + str_trim(values[i]) + "|";
        }
        record += '\n';
        std::fputs(record.c_str(), out.stream());
        ++rows;
    }
    if (footerCount >= 0) {
        if (rows == 0) {
            if (const std::string refusal = check_columns(); !refusal.empty()) {
                return fail(refusal);
            }
        }
        if (footerCount != rows) {
            return fail("iPGSQL_MAKE_DB_GET_FILE: " + id + ": " + std::to_string(rows) +
                        " rows read, but the database reported " + std::to_string(footerCount));
        }
    } else if (rows > 0) {
        return fail("iPGSQL_MAKE_DB_GET_FILE: " + id + ": no row count at the end of " + cpSqlOutFile);
    }
    in.reset();

    if (rows == 0) {
        std::remove(image.c_str());
    } else if (!out.commit()) {
        const int err = errno;
        i_FILE_CLOSE(err);
        return fail("Can't write file " + image);
    }
    cpMsg = std::to_string(rows);
    WRITE_TRACE(1, "--- PGSQL_MAKE_DB_GET_FILE   rows= %s ", cpMsg.c_str());
    return true;
}

}  // namespace rv
