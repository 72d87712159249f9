#include "cli/rv_db_cli.hpp"

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "config/environment.hpp"
#include "config/log_setup.hpp"
#include "db/access.hpp"
#include "log/trace.hpp"

namespace rv {

namespace {

constexpr const char* kUsage =
    "Usage:\n"
    "%s \"<statement>\" [-e] [-v 0|1|2]\n"
    "  runs one SQL statement against the product database ravik_db\n"
    "  -e        write a select as export text (INSERT lines) on standard output\n"
    "  -v LEVEL  trace level, the trace is echoed on standard error\n"
    "Without -e a select prints its records (\"|name=value|...|\", one a line),\n"
    "a count, sum, min or max prints the value, any other statement the number\n"
    "of rows it touched.\n"
    "Exit status: 0 success, 1 usage error, 2 the statement failed.\n";

int usage(const char* program, std::FILE* out, int status) {
    std::fprintf(out, kUsage, program);
    return status;
}

struct Options {
    std::optional<std::string> statement;
    bool bExport = false;
    int level = -1;  // -v, or -1
};

// Reads the command line into `options`. Returns -1 when the statement is to
// run, else the exit status (usage asked for, or a usage error).
int parse(int argc, char** argv, Options& options) {
    const char* program = argc > 0 ? argv[0] : "rv_db";
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            return usage(program, stdout, kRvDbOk);
        }
        if (arg == "-e") {
            options.bExport = true;
        } else if (arg == "-v") {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "rv_db: -v needs a trace level\n");
                return usage(program, stderr, kRvDbUsage);
            }
            options.level = std::atoi(argv[++i]);
        } else if (!options.statement) {
            options.statement = arg;
        } else {
            std::fprintf(stderr, "rv_db: only one statement, found a second: %s\n", argv[i]);
            return usage(program, stderr, kRvDbUsage);
        }
    }
    if (!options.statement || options.statement->empty()) {
        std::fprintf(stderr, "rv_db: no statement given\n");
        return usage(program, stderr, kRvDbUsage);
    }
    return -1;
}

// Prints the answer of the statement that ran.
void print_answer(const Options& options, const DB_REC_LIS& list, const std::string& msg) {
    std::string cleaned = *options.statement;
    SQL_LOWERCASE(cleaned);
    switch (sql_form(cleaned, options.bExport)) {
        case SqlForm::export_text:
            break;  // already written
        case SqlForm::record_list:
            for (const DB_REC_LIS_ELEMENT& record : list.records) {
                std::printf("%s\n", record.cpData.c_str());
            }
            std::printf("-- %d rows found\n", list.iRows());
            break;
        case SqlForm::calculated:
        case SqlForm::command:
            std::printf("%s\n", msg.c_str());
            break;
    }
    std::fflush(stdout);
}

}  // namespace

int rv_db_main(int argc, char** argv) {
    Options options;
    if (const int status = parse(argc, argv, options); status >= 0) {
        return status;
    }
    // Standard output carries the answer (an export file, as a rule): the
    // environment set-up reports on standard error instead.
    set_environment_report(stderr);
    v_set_log_main("rv_db.lgc", "RV_DB");
    if (options.level >= 0) {
        strLog.iFlg = options.level;
        strLog.iVerify = 1;
    }

    std::string msg = options.bExport ? "export" : "";
    DB_REC_LIS list;
    list.szId = "rv_db";
    if (!iDB_ACCESS(*options.statement, msg, &list)) {
        if (msg.empty() || msg == "export") {
            std::fprintf(stderr, "rv_db: the statement failed (reason above): %s\n", options.statement->c_str());
        } else {
            std::fprintf(stderr, "rv_db: the statement failed: %s\n", msg.c_str());
        }
        return kRvDbFailed;
    }
    print_answer(options, list, msg);
    return kRvDbOk;
}

}  // namespace rv
