// The command line of rv_db_update as an operator meets it: usage texts,
// command selection by (shortened) word, -v, status lines, exit statuses and
// the trace file of a sandbox installation.
#include <gtest/gtest.h>

#include <map>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

using rvtest::run;

const std::string kTool = rvtest::bin("rv_db_update");
const std::string kUsage = "Usage:\n" + kTool +
                           " update [{old_version} {new_version}]|downgrade|db_backup|db_restore|set_params_fix"
                           " [-v 0|1|2]\n";
const std::string kWarning = "STATUS=WARNING MSG=Usage:\n" + kTool +
                             " update|downgrade|db_backup|db_restore|set_params_fix [-v 0|1|2]\n\n";

class CommandLine : public ::testing::Test {
protected:
    rvtest::Sandbox box;
};

TEST_F(CommandLine, UsageWithoutStatusLine) {
    auto none = run({kTool});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, kUsage);

    auto help = run({kTool, "-h"});
    EXPECT_EQ(help.status, 1);
    EXPECT_EQ(help.out, kUsage);

    // "-v" stands in the command position: the level is set, then usage.
    auto verbose = run({kTool, "-v", "2"});
    EXPECT_EQ(verbose.status, 1);
    EXPECT_EQ(verbose.out, "-v set to 2\n" + kUsage);

    auto unknown = run({kTool, "upgrade"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.out, kUsage);
}

TEST_F(CommandLine, WordInsideTheCommandListGivesTheWarning) {
    for (const char* word : {"date", "fix", "d", "s", "|"}) {
        auto r = run({kTool, word});
        EXPECT_EQ(r.status, 1) << word;
        EXPECT_EQ(r.out, kWarning) << word;
    }
}

TEST_F(CommandLine, ShortenedWordsSelectCommands) {
    box.make_installation();
    const std::map<std::string, std::string> env{{"OS", ""}};
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                       "[Update 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n"
                       "[Downgrade 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n");
    for (const char* word : {"up", "", "update"}) {
        auto r = run({kTool, word}, env);
        EXPECT_EQ(r.status, 0) << '"' << word << '"';
        EXPECT_NE(r.out.find("Update main version: 1.6.4.\n[Update from 1.6.3.20 to 1.6.4.71]\nstep=1 cmd=echo\n"),
                  std::string::npos)
            << r.out;
    }
    // downgrade: 1.6.4 knows only the way back to 1.6.2, so nothing happens.
    auto down = run({kTool, "do"}, env);
    EXPECT_EQ(down.status, 0);
    EXPECT_EQ(down.out.find("STATUS="), std::string::npos);
    EXPECT_EQ(down.out.find("[Downgrade"), std::string::npos);

    auto backup = run({kTool, "db"}, env);
    EXPECT_EQ(backup.status, 0);
    EXPECT_NE(backup.out.find("tar -cvf "), std::string::npos);
    auto restore = run({kTool, "db_r"}, env);
    EXPECT_EQ(restore.status, 0);
    EXPECT_NE(restore.out.find("tar -xvf "), std::string::npos);

    // set_params_fix: without a reachable server both statements fail, are
    // reported, and the run goes on.
    auto fix = run({kTool, "set"}, env);
    EXPECT_EQ(fix.status, 0);
    EXPECT_NE(fix.out.find("update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'\n"), std::string::npos)
        << fix.out;
}

TEST_F(CommandLine, DowngradePaths) {
    box.make_installation();
    const std::string skel = box.dir("gv_ro") + "skel/ravik_srv.1.6.4";
    const std::string old = box.dir("gv_ro") + "downgrade/skel/ravik_srv.1.6.3";

    rvtest::write_file(old, "[CVS_UPDATE]\nversion=1.6.2.9\n");
    rvtest::write_file(box.dir("gv_ro") + "skel/rv_db_update.ini",
                       "[Downgrade 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n"
                       "[Downgrade 2.0.1.]\nlast_step_nr=1\nstep_1=cmd echo 2\n");
    auto r = run({kTool, "downgrade"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("[Downgrade from 1.6.4 to 1.6.2]\nstep=1 cmd=echo\n"), std::string::npos) << r.out;

    rvtest::write_file(skel, "[CVS_UPDATE]\nversion=2.0.1.3\n");
    rvtest::write_file(old, "[CVS_UPDATE]\nversion=1.6.3.20\n");
    r = run({kTool, "downgrade"});
    EXPECT_NE(r.out.find("[Downgrade from 2.0.1 to 1.6.3]\nstep=1 cmd=echo 2\n"), std::string::npos) << r.out;

    rvtest::write_file(skel, "[CVS_UPDATE]\nversion=1.7.0.1\n");
    r = run({kTool, "downgrade"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.substr(r.out.find("STATUS=")),
              "STATUS=ERROR MSG=Es sind keine Downgrade Informationen fuer diese Version verfuegbar.\n");
}

TEST_F(CommandLine, TraceFileGetsIndentedEntryAndExitLines) {
    box.write_debug_ini("OTHER=1\nRV_DB_UPDATE=2\n");
    const std::string trace = box.dir("gv_rw_lgc") + "rv_db_update.lgc";

    auto r = run({kTool, "update", "1.6.3.20", "1.6.4.71"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err.find("DbUpdate"), std::string::npos) << "no echo without -v or STDERR=1";
    EXPECT_EQ(r.out.find("version file"), std::string::npos) << "versions given, none detected";

    const auto lines = rvtest::read_lines(trace);
    ASSERT_FALSE(lines.empty());
    // Every line opens with its time of day: "hh:mm:ss#" (hour blank-padded).
    for (const auto& line : lines) {
        ASSERT_GE(line.size(), 9u) << line;
        EXPECT_TRUE(line[2] == ':' && line[5] == ':' && line[8] == '#') << line;
    }
    const std::string all = rvtest::read_file(trace);
    EXPECT_NE(all.find("Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID="), std::string::npos);
    EXPECT_NE(all.find("# rv_db_update 1.0.0 called with: " + kTool + " update 1.6.3.20 1.6.4.71 \n"),
              std::string::npos);
    // Entry and exit lines of the (here empty) section run.
    EXPECT_NE(all.find("# +++ DbUpdate [Update 1.6.4.]\n"), std::string::npos);
    EXPECT_NE(all.find("# --- DbUpdate Update 1.6.4.\n"), std::string::npos);
}

TEST_F(CommandLine, VerboseOptionEchoesTraceToStandardError) {
    box.write_debug_ini("RV_DB_UPDATE=0\n");
    auto r = run({kTool, "db_backup", "-v", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.rfind("-v set to 1\n", 0), 0u) << r.out;
    EXPECT_NE(r.err.find("+++ FINISH  2  rv_db_update breaks because there is no version file: "), std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("--- FINISH ERROR: rv_db_update breaks "), std::string::npos) << r.err;
    // The echoed lines reach the trace file too.
    EXPECT_NE(rvtest::read_file(box.dir("gv_rw_lgc") + "rv_db_update.lgc").find("+++ FINISH"),
              std::string::npos);
}

TEST_F(CommandLine, MissingTraceDirectoryIsReportedAndRunGoesOn) {
    box.set_path_key("gv_rw_lgc", "");
    auto r = run({kTool});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("FATAL: SET_LOG_MAIN: gv_rw_lgc not set"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, kUsage);
}

}  // namespace
