#include "steps/unload.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "config/process.hpp"
#include "config/product.hpp"
#include "db/access.hpp"
#include "loader/loader.hpp"
#include "loader/position.hpp"
#include "loader/script.hpp"
#include "log/finish.hpp"
#include "log/prot.hpp"
#include "log/trace.hpp"
#include "steps/failures.hpp"
#include "steps/psql_dump.hpp"
#include "steps/table_image.hpp"
#include "sys/strings.hpp"
#include "sys/file_io.hpp"
#include "sys/progress.hpp"

namespace rv {

namespace {

// Calls `handle` for every name of the comma-separated list `cpTable`; an
// empty name (a trailing ",") ends the list. Stops when `handle` is false.
template <typename Handle>
bool for_each_table(std::string_view cpTable, Handle handle) {
    for (const std::string& table : split(cpTable, ',', EmptyFields::keep)) {
        if (table.empty()) {
            return true;  // a trailing "," ends the list
        }
        if (!handle(table)) {
            return false;
        }
    }
    return true;
}

// The image of `table` for the step `step`. Without a work directory no
// step could find the file again, so the run ends.
std::string image_or_finish(const char* step, const std::string& table) {
    std::string image = table_image_path(table);
    if (image.empty()) {
        FINISH(RV_ERROR, std::string(step) + ": " + kWorkDirUnknown + "; table " + table + " not handled");
    }
    return image;
}

// True only when the database says that `table` does not exist (asked
// after its dump failed); a database that cannot be asked says nothing.
bool table_missing(const std::string& table) {
    if (table.find('\'') != std::string::npos) {
        return false;
    }
    std::string count = "export";
    const bool asked =
        iDB_ACCESS("select count(*) from pg_class where oid = to_regclass('" + table + "')", count, nullptr);
    return asked && count == "0";
}

// Ends the run when the loader stopped before the end of the script of
// `table` (no connection, lost connection, killed): the table may hold only
// part of its rows.
void check_load_complete(const std::string& table, int status) {
    if (status != -1 && WIFEXITED(status) && WEXITSTATUS(status) != kLoaderStopped) {
        return;
    }
    throw StepFailure("import of " + table + ": the loader stopped before the end of its script (exit state " +
                      std::to_string(status) + ")");
}

// The export step for `table`: the export tool writes its INSERT text.
void export_table(const std::string& table) {
    if (!shell_double_quotable(table)) {
        std::printf("export %s refused: the table name holds a character the shell would change\n",
                    table.c_str());
        return;
    }
    const std::string image = image_or_finish("export", table);
    std::string cmd = shell_quote(pathes.bin_ravik + "rv_db") + " \"select * from " + table + "\" -e > " +
                      shell_quote(image);
    const ChildEnd end = run_reported({cmd, {}, nullptr, true}, cmd);
    const int status = end.finished() ? end.status : -1;
    WRITE_TRACE(0, "export %s returned exit state %d", table.c_str(), status);
    if (status != 0) {
        step_failed("export " + table + ": the export tool returned exit state " + std::to_string(status));
    }
    if (strLog.iVerify == 0) {
        std::printf("export %s returned exit state %d\n", table.c_str(), status);
    }
}

// The table's rows into its image: "select distinct *", or, where the server
// cannot compare the values of a column type (json, point, xml), "select *"
// (duplicate rows then stay), said in the trace and on the console. True
// with the row count in `msg`; false with the reason, `sql` the statement
// that failed.
bool select_into_image(const std::string& table, std::string& sql, std::string& msg) {
    sql = "select distinct * from " + table;
    if (iSELECT_INTO_TEMP_FILE(table, sql, msg)) {
        return true;
    }
    // The client's own error went to the console: the server says again why,
    // where the client answered with an error (not when the dump was broken
    // off or its answer refused). A lock held elsewhere must not hold the
    // run: the question waits for it a second at most.
    std::string probe = "export";
    if (msg.find("didn't find expected strings") == std::string::npos || table.find('\'') != std::string::npos ||
        iDB_ACCESS("set lock_timeout = 1000; select distinct * from " + table + " limit 0", probe, nullptr) ||
        db_failure().find("could not identify an equality operator") == std::string::npos) {
        return false;
    }
    WRITE_TRACE(0, "%s holds values the server cannot compare: dumped without distinct", table.c_str());
    if (strLog.iVerify == 0) {
        std::printf("%s holds values the server cannot compare: dumped without distinct\n", table.c_str());
    }
    sql = "select * from " + table;
    return iSELECT_INTO_TEMP_FILE(table, sql, msg);
}

// The dump step for `table`. A failure of a table that exists ends the run
// (the image would be the only copy of its rows); false when an optional
// table that does not exist failed: the list stops there.
bool dump_table(const std::string& table) {
    std::string sql;
    std::string msg;
    if (select_into_image(table, sql, msg)) {
        WRITE_TRACE(0, "select %s rows from %s", msg.c_str(), table.c_str());
        if (strLog.iVerify == 0) {
            std::printf("select %s rows from %s\n", msg.c_str(), table.c_str());
        }
        return true;
    }
    trap_db_err(sql, msg);
    WRITE_TRACE(0, "got error from statement %s", sql.c_str());
    if (strLog.iVerify == 0) {
        std::printf("got error from %s select statement\n", table.c_str());
    }
    // The image would be the only copy of the rows of a table that
    // exists: without it the run must not go on. An optional table that
    // does not exist is no loss.
    if (!table_missing(table)) {
        std::fflush(stdout);
        throw StepFailure("dump of " + table + " failed: " + msg);
    }
    step_failed("dump " + table + ": " + msg);
    return false;
}

}  // namespace

// The lines of dump, export and import below are traced at every level
// (level 0 included), the entries of db_unload and the import above level 0.
int db_unload(std::string_view cpMode, std::string_view cpDatabase, std::string_view cpTable) {
    const std::string mode(cpMode);
    const std::string list(cpTable);
    (void)cpDatabase;
    WRITE_TRACE(1, "+++ db_unload %s for [%s]", mode.c_str(), list.c_str());
    const bool all = for_each_table(cpTable, [&](const std::string& table) {
        if (mode != "export") {
            return dump_table(table);
        }
        export_table(table);
        return true;
    });
    std::fflush(stdout);
    if (!all) {
        return 0;
    }
    WRITE_TRACE(0, "--- db_unload done %s", mode.c_str());
    return 1;
}

std::string load_position_path(const std::string& image) { return image + ".pos"; }

void remove_load_positions(const std::string& work_dir) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(work_dir, error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("db_") && (name.ends_with(".tmp.pos") || name.ends_with(".tmp.pos.new"))) {
            std::filesystem::remove(entry.path(), error);
            WRITE_TRACE(2, "removed the load position %s", entry.path().c_str());
        }
    }
}

namespace {

// The statements of `script` the loader has taken, as its position file
// `posfile` says; nullopt while there is none (or none to be read).
std::optional<std::size_t> loaded_statements(const std::string& posfile, const ScriptCount& script) {
    const std::optional<LoadPosition> position = read_load_position(posfile);
    return position ? std::optional(script.statements_through(position->last)) : std::nullopt;
}

// On a terminal, `progress` counts the statements of `image` as the loader
// takes them: the tool reads the loader's position file `posfile` on every
// tick of `command`, which the loader writes at every commit anyway.
void follow_load(ProgressLine& progress, const std::string& image, const std::string& posfile, bool rerun,
                 ChildCommand& command, std::optional<ScriptCount>& script) {
    if (!progress.live() || !(script = count_statements(image))) {
        return;
    }
    progress.set_total(script->statements);
    const auto follow = [&progress, &posfile, &script] {
        if (const std::optional<std::size_t> loaded = loaded_statements(posfile, *script)) {
            progress.set_done(*loaded);
        }
    };
    if (rerun) {
        follow();
        progress.rebase();  // the rate counts this load's statements only
    } else {
        progress.show_start();  // a load may end before the first tick
    }
    command.on_tick = follow;
}

// Loads the image of `table` through the loader; returns its status.
int load_table(const std::string& table, bool rerun) {
    WRITE_TRACE(0, "load values into table %s", table.c_str());
    if (strLog.iVerify == 0) {
        std::printf("load values into table %s\n", table.c_str());
    }
    const std::string image = image_or_finish("import", table);
    const std::string posfile = load_position_path(image);
    WRITE_TRACE(2, "get values from file: %s", image.c_str());
    const std::string cmd = shell_quote(pathes.bin_db + "oaisql") + " -c " + shell_quote(image) + " -e -p " +
                            shell_quote(posfile) + (rerun ? " -r" : "") + " 2>&1";
    if (rerun) {
        WRITE_TRACE(0, "import %s continues after the statements its interrupted load committed", table.c_str());
        std::printf("import %s continues after the statements its interrupted load committed\n", table.c_str());
    }
    int errors = 0;
    std::size_t statements = 0;
    ProgressLine progress(STDERR_FILENO, "import " + table);
    const auto count = [&errors, &statements, &progress](std::string line) {
        if (strLog.iVerify == 0) {
            progress.clear();
            std::fputs(line.c_str(), stdout);
        }
        for (int i = 0; i < 2 && !line.empty() && (line.back() == '\n' || line.back() == '\r'); ++i) {
            line.pop_back();
        }
        WRITE_TRACE(0, "%s", line.c_str());
        if (line.find("Error") != std::string::npos) {
            ++errors;
        }
        std::sscanf(line.c_str(), "oaisql: %zu statements,", &statements);
    };
    ChildCommand command{cmd, count, nullptr, true};
    std::optional<ScriptCount> script;
    follow_load(progress, image, posfile, rerun, command, script);
    std::string reported = cmd;
    const ChildEnd end = run_reported(command, reported);
    if (end.how == ChildEnd::How::refused || end.how == ChildEnd::How::not_started) {
        FINISH(RV_ERROR, "ERROR: Import could not start " + cmd);
    }
    const int status = end.finished() ? end.status : -1;
    WRITE_TRACE(0, "import %s returned exit state %d with %d errors", table.c_str(), status, errors);
    if (strLog.iVerify == 0) {
        std::printf("import %s returned exit state %d with %d errors\n", table.c_str(), status, errors);
    }
    check_load_complete(table, status);
    if (errors > 0) {
        step_failed("import " + table + ": " + with_thousands(static_cast<std::size_t>(errors)) + " of " +
                    with_thousands(statements) + " statements failed");
    }
    std::fflush(stdout);
    return status;
}

}  // namespace

int db_load(std::string_view cpDatabase, std::string_view cpTable, bool rerun) {
    (void)cpDatabase;
    const std::string list(cpTable);
    WRITE_TRACE(1, "+++ import for %s", list.c_str());
    int status = 0;
    for_each_table(cpTable, [&](const std::string& table) {
        status = load_table(table, rerun);
        return true;
    });
    WRITE_TRACE(0, "+++ import done for %s", list.c_str());
    return status;
}

}  // namespace rv
