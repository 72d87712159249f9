#include "cli/commands.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/log_setup.hpp"
#include "config/process.hpp"
#include "config/product.hpp"
#include "db/exec_statement.hpp"
#include "log/finish.hpp"
#include "log/trace.hpp"
#include "sys/durable_append.hpp"
#include "sys/strings.hpp"
#include "sys/timefmt.hpp"
#include "update/checkenv.hpp"
#include "update/driver.hpp"
#include "update/journal.hpp"
#include "update/plan.hpp"
#include "update/run_lock.hpp"
#include "update/script_check.hpp"
#include "update/summary.hpp"

namespace rv {

namespace {

// Opens the trace of every run.
constexpr const char* kVersionId = "rv_db_update 1.0.0";

// Positions of the commands in kCommandList.
constexpr std::size_t kPosUpdate = 0;
constexpr std::size_t kPosDowngrade = 7;
constexpr std::size_t kPosDbBackup = 17;
constexpr std::size_t kPosDbRestore = 27;
constexpr std::size_t kPosSetParamsFix = 38;
constexpr std::size_t kPosResume = 53;
constexpr std::size_t kPosPlan = 60;
constexpr std::size_t kPosCheck = 65;
static_assert(kCommandList.substr(kPosResume, 7) == "resume|" && kCommandList.substr(kPosPlan, 5) == "plan|" &&
              kCommandList.substr(kPosCheck) == "check");

// Length of the update date written into params_fix: down to the minute.
constexpr std::size_t kUpdateDateLength = 12;

std::string usage_text(const char* program, std::string_view list) {
    return "Usage:\n" + std::string(program) + " " + std::string(list) + " [-v 0|1|2]\n";
}

// Applies every "-v N" of the command line to the trace context.
void scan_trace_option(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) {
        if (std::strncmp(argv[i], "-v", 2) == 0 && i + 1 < argc) {
            ++i;
            strLog.iFlg = std::atoi(argv[i]);
            strLog.iVerify = 1;
            std::printf("-v set to %s\n", argv[i]);
        }
    }
}

// Runs a shell command line of db_backup or db_restore; its status is not
// examined (the archive commands guard themselves).
void run_archive_command(const std::string& cmd) {
    WRITE_TRACE(1, "%s", cmd.c_str());
    // Shown as it is, without a line feed; written as text, so a '%' in a
    // path cannot be taken for a conversion.
    std::fputs(cmd.c_str(), stdout);
    std::fflush(stdout);
    std::string run = cmd;
    start_system(run);
}

// Set for the run that `resume` continues: the journal goes on instead of
// starting afresh.
bool gResuming = false;

// Runs the section `section` of the command `command` under the run
// journal: an unfinished run refuses a new one; a run that ends early stays
// unfinished, with the reason recorded.
void run_recorded(const char* command, const std::string& section) {
    if (!gResuming) {
        refuse_unfinished_run(pathes.var_work);
        journal_start(pathes.var_work, {command, pathes.version_old, pathes.version, rvdb_ini,
                                        file_digest(rvdb_ini), {}, {}, {}, {}, {}, false});
    }
    clear_failure_summary();
    try {
        iDbUpdate(section);
    } catch (const Fatal& fatal) {
        journal_stopped(fatal.what());
        print_failure_summary();
        throw;
    }
    journal_finished();
    print_failure_summary();
}

void update_section() {
    glbvVersion = main_version(pathes.version);
    std::printf("Update main version: %s\n", glbvVersion->c_str());
    std::printf("[Update from %s to %s]\n", pathes.version_old.c_str(), pathes.version.c_str());
    std::fflush(stdout);
    run_recorded("update", "Update " + *glbvVersion);
}

// The environment check with the releases the words behind the command
// word give by their position; the others are detected.
void checkenv_with_versions(int argc, char** argv) {
    if (argc > 2) {
        pathes.version_old = argv[2];
    }
    if (argc > 3) {
        pathes.version = argv[3];
    }
    checkenv(pathes.version_old, pathes.version);
}

int cmd_update(int argc, char** argv) {
    checkenv_with_versions(argc, argv);
    update_section();
    return 0;
}

// Shows the steps the update would run, without running them: no journal
// (an unfinished run does not refuse it), no child, no database.
int cmd_plan(int argc, char** argv) {
    checkenv_with_versions(argc, argv);
    glbvVersion = main_version(pathes.version);
    std::printf("Update main version: %s\n", glbvVersion->c_str());
    std::printf("[Plan of the update from %s to %s: nothing is run]\n", pathes.version_old.c_str(),
                pathes.version.c_str());
    plan_section("Update " + *glbvVersion);
    return 0;
}

// The script a check names on the command line ("" for the installation's).
std::string script_to_check(int argc, char** argv) {
    return argc > 2 && std::strncmp(argv[2], "-v", 2) != 0 ? argv[2] : "";
}

// Checks the update script named on the command line, or the installation's.
int cmd_check(int argc, char** argv) {
    std::string script = script_to_check(argc, argv);
    if (script.empty()) {
        check_installation();
        script = rvdb_ini;
    }
    return check_script_file(script);
}

void downgrade_section() {
    const std::string& newv = pathes.version;
    const std::string& oldv = pathes.version_old;
    if (newv.find("1.6.4.") != std::string::npos) {
        if (oldv.find("1.6.2.") != std::string::npos) {
            std::printf("[Downgrade from 1.6.4 to 1.6.2]\n");
            std::fflush(stdout);
            run_recorded("downgrade", "Downgrade 1.6.4.");
        }
    } else if (newv.find("2.0.1.") != std::string::npos) {
        if (oldv.find("1.6.3.") != std::string::npos) {
            std::printf("[Downgrade from 2.0.1 to 1.6.3]\n");
            std::fflush(stdout);
            run_recorded("downgrade", "Downgrade 2.0.1.");
        }
    } else {
        FINISH(RV_ERROR, "Es sind keine Downgrade Informationen fuer diese Version verfuegbar.");
    }
}

int cmd_downgrade() {
    checkenv(pathes.version_old, pathes.version);
    downgrade_section();
    return 0;
}

// Continues the unfinished run of the installation with its releases and
// its sections; a changed update script is refused.
int cmd_resume() {
    check_installation();
    const std::optional<JournalRun> run = read_journal(pathes.var_work);
    if (!run || run->finished) {
        std::printf("nothing to resume\n");
        return 0;
    }
    if (run->script != rvdb_ini || file_digest(rvdb_ini) != run->digest) {
        FINISH(RV_ERROR, "resume refused: the update script " + run->script +
                             " changed since the interrupted run started (" + run->started +
                             "); remove " + journal_path(pathes.var_work) + " to discard that run");
    }
    pathes.version_old = run->version_old;
    pathes.version = run->version;
    check_versions(pathes.version_old, pathes.version);
    std::printf("[Resume %s from %s to %s, started %s]\n", run->command.c_str(), run->version_old.c_str(),
                run->version.c_str(), run->started.c_str());
    journal_resume(pathes.var_work, *run);
    gResuming = true;
    run->command == "update" ? update_section() : downgrade_section();
    return 0;
}

int cmd_db_backup() {
    checkenv(pathes.version_old, pathes.version);
    const char s = pathes.separator;
    const std::string& ro = pathes.root_ravik;
    const std::string archive = shell_quote(ro + "downgrade" + s + "ravik_db.tar");
    run_archive_command("cd " + shell_quote(pathes.var_db + "schema" + s + "ravik" + s) + "; [ -f " + archive +
                        " ] || tar -cvf " + archive + " .");
    return 0;
}

int cmd_db_restore() {
    checkenv(pathes.version_old, pathes.version);
    const char s = pathes.separator;
    run_archive_command("cd " + shell_quote(pathes.var_db + "schema" + s + "ravik" + s) + " ; tar -xvf " +
                        shell_quote(pathes.root_ravik + "downgrade" + s + "ravik_db.tar") + " .");
    return 0;
}

int cmd_set_params_fix() {
    checkenv(pathes.version_old, pathes.version);
    // The release goes into a quoted literal: a quote in it would end the
    // literal and change the statement.
    if (pathes.version.find('\'') != std::string::npos) {
        FINISH(RV_ERROR, "set_params_fix refused: the version " + pathes.version + " holds a single quote");
    }
    iExecDbStatement("ravik_db",
                     "update params_fix set version='" + pathes.version + "' where kunde='QOR-RAVIK'");
    std::string date = "I";
    time_get(date);
    date.resize(std::min(date.size(), kUpdateDateLength));
    iExecDbStatement("ravik_db", "update params_fix set update_date='" + date + "' where kunde='QOR-RAVIK'");
    return 0;
}

// Runs the command the command line names; a fatal condition throws Fatal.
int run_command(int argc, char** argv) {
    // A check of a script that the command line names reads nothing of the
    // installation, not even the trace settings.
    if (argc < 2 || kCommandList.find(argv[1]) != kPosCheck || script_to_check(argc, argv).empty()) {
        v_set_log_main("rv_db_update.lgc", "RV_DB_UPDATE");
    }
    scan_trace_option(argc, argv);
    WRITE_TRACE(1, "%s called with: %s", kVersionId, GET_CALL_PARAM(argc, argv).c_str());

    if (argc == 1 || std::strcmp(argv[1], "-h") == 0 || kCommandList.find(argv[1]) == std::string_view::npos) {
        std::fputs(usage_text(argv[0], kUsageList).c_str(), stdout);
        std::fflush(stdout);
        return RV_WARNING;
    }

    pathes.version_old.clear();
    pathes.version.clear();
    gResuming = false;
    int ret = 0;
    switch (kCommandList.find(argv[1])) {
        case kPosUpdate:
            ret = cmd_update(argc, argv);
            break;
        case kPosDowngrade:
            ret = cmd_downgrade();
            break;
        case kPosDbBackup:
            ret = cmd_db_backup();
            break;
        case kPosDbRestore:
            ret = cmd_db_restore();
            break;
        case kPosSetParamsFix:
            ret = cmd_set_params_fix();
            break;
        case kPosResume:
            ret = cmd_resume();
            break;
        case kPosPlan:
            ret = cmd_plan(argc, argv);
            break;
        case kPosCheck:
            ret = cmd_check(argc, argv);
            break;
        default:
            FINISH(RV_WARNING, usage_text(argv[0], kCommandList));
    }
    std::fflush(stdout);
    return ret;
}

}  // namespace

int rv_db_update_main(int argc, char** argv) {
    // The lock a command took goes with the run, however it ends.
    struct Unlock {
        ~Unlock() { unlock_installation(); }
    } unlock;
    try {
        return run_command(argc, argv);
    } catch (const Fatal& fatal) {
        return finish_run(fatal);
    }
}

}  // namespace rv
