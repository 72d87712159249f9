// The command line of rv_db_update as an operator meets it: usage texts,
// command selection by (shortened) word, -v, status lines, exit statuses and
// the trace file of a sandbox installation.
#include <gtest/gtest.h>

#include "support/run.hpp"
#include "support/sandbox.hpp"

namespace {

using rvtest::run;

const std::string kTool = rvtest::bin("rv_db_update");
const std::string kUsage = "Usage:\n" + kTool +
                           " update [{old_version} {new_version}]|downgrade|db_backup|db_restore|"
                           "set_params_fix [-v 0|1|2]\n";
const std::string kWarning = "STATUS=WARNING MSG=Usage:\n" + kTool +
                             " update|downgrade|db_backup|db_restore|set_params_fix [-v 0|1|2]\n\n";

class CommandLine : public ::testing::Test {
  protected:
    rvtest::Sandbox box;
    std::string ro = box.dir("gv_ro");
};

TEST_F(CommandLine, UsageAndWarningWithoutACommand) {
    // "-v" in the command position: the level is set, then usage.
    const std::pair<std::vector<std::string>, std::string> usage[] = {
        {{}, kUsage},
        {{"-h"}, kUsage},
        {{"upgrade"}, kUsage},
        {{"-v", "2"}, "-v set to 2\n" + kUsage},
        // A word inside the command list gives the warning.
        {{"date"}, kWarning},
        {{"fix"}, kWarning},
        {{"d"}, kWarning},
        {{"s"}, kWarning},
        {{"|"}, kWarning},
    };
    for (auto [args, out] : usage) {
        args.insert(args.begin(), kTool);
        const auto r = run(args);
        EXPECT_EQ(r.status, 1) << args.back();
        EXPECT_EQ(r.out, out) << args.back();
    }
    // A missing trace directory is reported and the run goes on.
    box.set_path_key("gv_rw_lgc", "");
    const auto r = run({kTool});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("FATAL: SET_LOG_MAIN: gv_rw_lgc not set"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, kUsage);
}

TEST_F(CommandLine, ShortenedWordsSelectCommands) {
    box.make_installation();
    rvtest::write_file(ro + "skel/rv_db_update.ini",
                       "[Update 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n"
                       "[Downgrade 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n");
    const std::pair<const char*, std::string> words[] = {
        {"up", "[Update from 1.6.3.20 to 1.6.4.71]\nstep=1 cmd=echo\n"},
        {"", "[Update from 1.6.3.20 to 1.6.4.71]\nstep=1 cmd=echo\n"},
        {"db", "tar -cvf "},
        {"db_r", "tar -xvf "},
        {"set", "update params_fix set version='1.6.4.71' where kunde='QOR-RAVIK'\n"},
    };
    for (const auto& [word, text] : words) {
        const auto r = run({kTool, word}, {{"OS", ""}});
        EXPECT_EQ(r.status, 0) << '"' << word << '"';
        EXPECT_NE(r.out.find(text), std::string::npos) << r.out;
    }
    // downgrade: 1.6.4 knows only the way back to 1.6.2, so nothing happens.
    const auto down = run({kTool, "do"}, {{"OS", ""}});
    EXPECT_EQ(down.status, 0);
    EXPECT_EQ(down.out.find("STATUS="), std::string::npos);
    EXPECT_EQ(down.out.find("[Downgrade"), std::string::npos);
}

TEST_F(CommandLine, DowngradePaths) {
    box.make_installation();
    const std::string skel = ro + "skel/ravik_srv.1.6.4";
    const std::string old = ro + "downgrade/skel/ravik_srv.1.6.3";
    rvtest::write_file(ro + "skel/rv_db_update.ini",
                       "[Downgrade 1.6.4.]\nlast_step_nr=1\nstep_1=cmd echo\n"
                       "[Downgrade 2.0.1.]\nlast_step_nr=1\nstep_1=cmd echo 2\n");
    rvtest::write_file(old, "[CVS_UPDATE]\nversion=1.6.2.9\n");
    auto r = run({kTool, "downgrade"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("[Downgrade from 1.6.4 to 1.6.2]\nstep=1 cmd=echo\n"), std::string::npos)
        << r.out;
    rvtest::write_file(skel, "[CVS_UPDATE]\nversion=2.0.1.3\n");
    rvtest::write_file(old, "[CVS_UPDATE]\nversion=1.6.3.20\n");
    r = run({kTool, "downgrade"});
    EXPECT_NE(r.out.find("[Downgrade from 2.0.1 to 1.6.3]\nstep=1 cmd=echo 2\n"), std::string::npos)
        << r.out;
    rvtest::write_file(skel, "[CVS_UPDATE]\nversion=1.7.0.1\n");
    r = run({kTool, "downgrade"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.substr(r.out.find("STATUS=")),
              "STATUS=ERROR MSG=Es sind keine Downgrade Informationen fuer diese Version "
              "verfuegbar.\n");
}

TEST_F(CommandLine, TraceFileAndVerboseEcho) {
    box.write_debug_ini("OTHER=1\nRV_DB_UPDATE=2\n");
    auto r = run({kTool, "update", "1.6.3.20", "1.6.4.71"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err.find("DbUpdate"), std::string::npos) << "no echo without -v or STDERR=1";
    EXPECT_EQ(r.out.find("version file"), std::string::npos) << "versions given, none detected";
    const std::string trace = box.dir("gv_rw_lgc") + "rv_db_update.lgc";
    const std::string all = rvtest::read_file(trace);
    EXPECT_NE(all.find("Logging enabled for module RV_DB_UPDATE: Loglevel 2, PID="),
              std::string::npos);
    EXPECT_NE(
        all.find("# rv_db_update 1.0.0 called with: " + kTool + " update 1.6.3.20 1.6.4.71 \n"),
        std::string::npos)
        << all;

    // -v overrides the level and echoes the trace to standard error.
    box.write_debug_ini("RV_DB_UPDATE=0\n");
    r = run({kTool, "db_backup", "-v", "1"});
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.out.starts_with("-v set to 1\n")) << r.out;
    EXPECT_NE(r.err.find("+++ FINISH  2  rv_db_update breaks because there is no version file: "),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("--- FINISH ERROR: rv_db_update breaks "), std::string::npos) << r.err;
    EXPECT_NE(rvtest::read_file(trace).find("+++ FINISH"), std::string::npos);
}

}  // namespace
